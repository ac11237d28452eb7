// ZuSock.cpp: datagram sockets with addresses as dotted text.
#include "ZuSock.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

namespace {

constexpr char kBroadcast[] = "<BROADCAST>";
constexpr char kBroadcastAddress[] = "255.255.255.255";
constexpr int kLargestPort = UINT16_MAX;

int64_t nowMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// False for a text that is no dotted address.
bool makeAddress(const char *text, int port, sockaddr_in *out) {
  *out = {};
  out->sin_family = AF_INET;
  out->sin_port = htons(static_cast<uint16_t>(port));
  out->sin_addr.s_addr = inet_addr(text);
  // What is no address gives the number of the broadcast address.
  return out->sin_addr.s_addr != INADDR_NONE || std::strcmp(text, kBroadcastAddress) == 0;
}

// One datagram and its terminator. -1 with errno when there is none.
int receive(int fd, char *addressTextOut, int *portOut, void *buffer, int size, int flags) {
  errno = EINVAL;
  if (!buffer || size < 0) return -1;
  sockaddr_in sender{};
  socklen_t senderSize = sizeof sender;
  ssize_t received;
  do {
    received =
        recvfrom(fd, buffer, static_cast<size_t>(size), flags, reinterpret_cast<sockaddr *>(&sender), &senderSize);
  } while (received < 0 && errno == EINTR);
  if (received < 0) return -1;
  if (addressTextOut) inet_ntop(AF_INET, &sender.sin_addr, addressTextOut, INET_ADDRSTRLEN);
  if (portOut) *portOut = ntohs(sender.sin_port);
  static_cast<char *>(buffer)[received] = '\0';
  return static_cast<int>(received);
}

}  // namespace

Deadline::Deadline(int32_t limitMs) : isSet_(limitMs >= 0), end_(isSet_ ? nowMs() + limitMs : 0) {}

bool Deadline::isOver() const { return isSet_ && leftMs() == 0; }

bool Deadline::waitFor(int fd, short events, int wake) const {
  if (fd < 0) return false;  // poll would pass it over, as it does with no `wake`
  pollfd waits[] = {{fd, events, 0}, {wake, 0, 0}};
  int ready;
  do {
    ready = poll(waits, 2, leftMs());
  } while (ready < 0 && errno == EINTR);
  return ready > 0 && (waits[0].revents & POLLNVAL) == 0 && waits[1].revents == 0;
}

int Deadline::leftMs() const {
  if (!isSet_) return kNoLimit;
  const int64_t left = end_ - nowMs();
  return left > 0 ? static_cast<int>(left) : 0;
}

int ZuSock_UDP_Create(const char *addressText, int port) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || !addressText || port < 1) return fd;
  sockaddr_in address;
  if (port > kLargestPort || !makeAddress(addressText, port, &address) ||
      bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

void ZuSock_UDP_Close(int fd) {
  if (fd >= 0) close(fd);
}

int ZuSock_UDP_SendMessage(int fd, const char *addressText, int port, const void *data, int length) {
  if (!addressText) return 0;
  if (!data || *static_cast<const char *>(data) == '\0' || length < 0) return -1;
  if (port < 0 || port > kLargestPort) return -1;
  const int broadcast = std::strcmp(addressText, kBroadcast) == 0;
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &broadcast, sizeof broadcast);
  sockaddr_in address;
  if (!makeAddress(broadcast ? kBroadcastAddress : addressText, port, &address)) return -1;
  ssize_t sent;
  do {
    sent =
        sendto(fd, data, static_cast<size_t>(length), 0, reinterpret_cast<const sockaddr *>(&address), sizeof address);
  } while (sent < 0 && errno == EINTR);
  return static_cast<int>(sent);
}

int ZuSock_UDP_RecvMessage(int fd, char *addressTextOut, int *portOut, void *buffer, int size) {
  return receive(fd, addressTextOut, portOut, buffer, size, 0);
}

int ZuSock_UDP_GetMessage(int fd, char *addressText, int *portInOut, void *buffer, int sendLength, int receiveSize,
                          int timeoutMs) {
  if (!portInOut) return -1;
  const int sent = ZuSock_UDP_SendMessage(fd, addressText, *portInOut, buffer, sendLength);
  if (sent < 0) return sent;
  if (timeoutMs < Deadline::kNoLimit) return 0;
  const Deadline deadline(timeoutMs);
  while (deadline.waitFor(fd, POLLIN)) {
    const int received = receive(fd, addressText, portInOut, buffer, receiveSize, MSG_DONTWAIT);
    if (received >= 0 || errno != EAGAIN) return received;
    if (deadline.isOver()) return 0;
  }
  return 0;
}
