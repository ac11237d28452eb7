// forged_sender.hpp: datagrams that seem to come from any address, as those of a network can.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstddef>

inline const char *forgedSender;  // dotted; NULL: the true one

// Stands in for libc's.
extern "C" ssize_t recvfrom(int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *fromSize) {
  iovec part = {data, size};
  msghdr message{};
  message.msg_name = from;
  message.msg_namelen = *fromSize;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  const ssize_t received = recvmsg(fd, &message, flags);
  if (forgedSender) inet_pton(AF_INET, forgedSender, reinterpret_cast<char *>(from) + offsetof(sockaddr_in, sin_addr));
  return received;
}
