/* CollectClient.h: the wire end of the collection service.
 *
 * A collection server asks by UDP datagram; the client connects back to it by TCP, sends messages of typed records, and
 * waits for an acknowledgement of at most 16 bytes after each. All integers are big endian.
 *
 *   request   length (4), the datagram's own | type (4), 0 to 3 | sequence (4) | server port (4)
 *   message   length (4), header included | type (4) | sequence (4) | payload, at most 1024 bytes
 *   integer   0x81 | item index (4) | section (4) | key (4) | value (4)
 *   long      0x82 | item index (4) | section (4) | key (4) | value (8)
 *   string    0x83 | item index (4) | section (4) | key (4) | length (2) | bytes      0x03: more pieces follow
 *   buffer    0x84 | the same                                                        0x04: more pieces follow
 *
 * Message types are 0, the identity (2 identity bytes | 0 | 0); 1, the catalogue (for each item: index (4) | length of
 * its name (2) | name); and 2, data, which is any number of records. A collection is the identity, the catalogue, one
 * or more messages of data for each item, and a last message, which is empty; then the client closes the connection.
 * A self-test has no catalogue. The identity carries the request's sequence, all others the board's own count of
 * messages, which goes on from run to run and takes the place of a sequence of 0. A run that fails has no last
 * message, and may leave its connection open until the next begins.
 *
 * There is one run at a time in a process: CollectClient_Start, any number of calls, CollectClient_End. Outside a run
 * the others do nothing. A run that fails before its end leaves its connection and its message buffer behind: calls
 * go on gathering and flushing until the next run's start or an end. The connection is closed earlier when a limit ran
 * out, or when only a part of a message went out; then every flush fails. Without CollectClient_SetTimeout there are
 * no time-outs: a server that stops answering holds the calling thread.
 *
 * All of it belongs to the thread that serves, but for CollectClient_SetTimeout and CollectClient_SetTrace: with a lock
 * (Kep_SetLock) those may be called from any thread.
 *
 * A host with a poll loop of its own does what Collect_Init does, where it is not stopped by Collect_Stop:
 *
 *   int fd = CollectClient_Init();                       // -1: the port is taken
 *   ...                                                  // poll says that fd is readable:
 *   int32_t sequence = CollectClient_WaitFor(fd, 0, 0, &type, address, &port);
 *   if (sequence == -1) continue;                        // no request
 *   if (!isWelcome(address, port & 0xFFFF, type)) continue;   // Collect_SetAccess is for Collect_Init alone
 *   if (type == COLLECTCLIENT_SELFTEST) Collect_SelfTest(address, port, sequence, id0, id1);
 *   else Collect_Start(address, port, (int32_t)type, sequence, id0, id1);
 *
 * Both runs wait as long as CollectClient_SetTimeout lets them, and log to g_collect_param's logger where the host has
 * put one there. */
#ifndef KEP_COLLECTCLIENT_H
#define KEP_COLLECTCLIENT_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Types of a request. The first three ask for a collection, and the items' callbacks are given the type: what it stands
 * for is for the host to say. */
enum { COLLECTCLIENT_TYPE0 = 0, COLLECTCLIENT_TYPE1 = 1, COLLECTCLIENT_TYPE2 = 2, COLLECTCLIENT_SELFTEST = 3 };

/* Opens the request socket on UDP port 9099 of every address, or where Collect_SetAddress says, without address reuse.
 * Returns its descriptor, which the caller owns, or -1, for example when the port is taken. */
KEP_API int CollectClient_Init(void);

/* Waits for one request datagram on `fd` and prints its size as "size=%ld\n" to standard output. A datagram whose
 * length field is not its true length, whose type is above 3, or whose sender cannot be one host (0.x.x.x, a multicast
 * address, 255.255.255.255), is dropped. id0 and id1 are not used. On success stores the type, the sender's dotted
 * address (16 bytes) and the port field, and returns the request's sequence. Returns -1 for a dropped datagram or a
 * negative `fd`; and, after a pause through VRK_Delay (in Collect_Init: a wait of the same second), when it fails. */
KEP_API int32_t CollectClient_WaitFor(int fd, uint8_t id0, uint8_t id1, uint32_t *typeOut, char *addrTextOut,
                                      int32_t *portOut);

/* Begins a run: connects to the dotted address and the low 16 bits of `port`, from the address of the request socket,
 * or before there is one from that of Collect_SetAddress. A connection that an earlier run left open is closed first.
 * Returns 1; 0, with no connection left open, when memory is short, or, with "connect error." on standard output, when
 * the server cannot be reached; also when the system connected the socket to itself. */
KEP_API int32_t CollectClient_Start(const char *addrText, int32_t port);

/* Sets the type of the messages that follow; 0 when a run begins. */
KEP_API void CollectClient_SetType(int32_t type);

/* Append 4 bytes, a 2-byte length and a text, or raw bytes, to the message. What does not fit is left out whole.
 * CollectClient_AppendInt returns the payload bytes gathered, 0 outside a run. */
KEP_API int32_t CollectClient_AppendInt(int32_t value);
KEP_API void CollectClient_AppendString(const char *text);
KEP_API void CollectClient_AppendBuffer(const void *data, int32_t length);

/* Write one record, sending the message first when the record does not fit. That flush is not checked. */
KEP_API void CollectClient_CollectInt(int32_t index, int32_t section, int32_t key, int32_t value);
KEP_API void CollectClient_CollectLong(int32_t index, int32_t section, int32_t key, int64_t value);

/* Write one record of as much as fits and return how many of the bytes it took; the caller comes again with the rest.
 * Length 0 measures the text, and writes an empty record for an empty one; a buffer of length 0 writes nothing. Return
 * 0, writing nothing, for a negative length, NULL, or outside a run. */
KEP_API int32_t CollectClient_CollectString(int32_t index, int32_t section, int32_t key, const char *text,
                                            int32_t length);
KEP_API int32_t CollectClient_CollectBuffer(int32_t index, int32_t section, int32_t key, const void *data,
                                            int32_t length);

/* Sends the message, empty or not, under `sequence` (0: the next number of a counter that runs through all runs of the
 * process) and waits for the acknowledgement, whose content does not matter; a connection closed instead counts as one.
 * Returns 1; 0 outside a run, or with "send error." or "recv error." on standard output; the payload is dropped. */
KEP_API int32_t CollectClient_Flush(int32_t sequence);

/* Ends a run: sends what is gathered, be it nothing, and closes the connection. */
KEP_API void CollectClient_End(void);

/* Limits, from the next call on, how long connecting, sending one message and waiting for one acknowledgement may take,
 * in milliseconds; 0 or less: for ever, the default. What takes longer has failed: it gives the text and the result of
 * any other failure, and the connection is closed, so that the rest of the run fails without waiting again. */
KEP_API void CollectClient_SetTimeout(int32_t connectMs, int32_t sendMs, int32_t ackMs);

/* 0: from now on neither the texts of this module nor the echo of the service's log leave; the log keeps its lines.
 * Anything else: they do, the default. */
KEP_API void CollectClient_SetTrace(int32_t on);

#ifdef __cplusplus
}
#endif

#endif
