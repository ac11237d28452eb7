/* ZuSock.h: datagram sockets (IPv4), with addresses as dotted text and ports as plain integers. No call is cut short by
 * a signal. Nothing here keeps any state: any thread may call. A socket is closed in programs that the host executes; a
 * child that executes none keeps a copy, and the port with it. */
#ifndef KEP_ZUSOCK_H
#define KEP_ZUSOCK_H

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Makes a socket and, when addressText is not NULL and port is 1 or more, binds it there. Returns its descriptor,
 * closed with ZuSock_UDP_Close, or -1, also for a port above 65535 to bind to. */
KEP_API int ZuSock_UDP_Create(const char *addressText, int port);

/* Closes a descriptor; a negative one is ignored. */
KEP_API void ZuSock_UDP_Close(int fd);

/* Sends one datagram of `length` bytes to a dotted address, or to the local network's broadcast address when
 * addressText is "<BROADCAST>"; the socket's permission to broadcast is switched accordingly. Returns the bytes sent,
 * or -1 on failure, and for NULL data, data that begin with a zero byte, a negative length, and a port below 0 or above
 * 65535; 0 for a NULL address. */
KEP_API int ZuSock_UDP_SendMessage(int fd, const char *addressText, int port, const void *data, int length);

/* Waits for one datagram, of which it keeps `size` bytes at most and writes a 0 after them: `buffer` has room for size
 * + 1. Stores the sender's dotted address (at least 16 bytes) and port; either may be NULL. Returns the bytes kept, or
 * -1 on failure, for a NULL buffer and a negative size. */
KEP_API int ZuSock_UDP_RecvMessage(int fd, char *addressTextOut, int *portOut, void *buffer, int size);

/* Sends sendLength bytes of `buffer` to addressText and *portInOut and waits timeoutMs milliseconds (-1: without limit)
 * for a reply, which overwrites `buffer` (receiveSize + 1 bytes), addressText (at least 16 bytes) and *portInOut.
 * Returns the reply's bytes; the negative result of a failed send or receive; 0 for an empty reply, when there is none
 * in time, and for any other negative time-out. A NULL portInOut gives -1; with a NULL addressText nothing is sent, and
 * a datagram is waited for all the same. */
KEP_API int ZuSock_UDP_GetMessage(int fd, char *addressText, int *portInOut, void *buffer, int sendLength,
                                  int receiveSize, int timeoutMs);

#ifdef __cplusplus
}
#endif

#endif
