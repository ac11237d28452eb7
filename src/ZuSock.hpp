// ZuSock.hpp: waiting for a socket, for a while or for ever.
#pragma once

#include <poll.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

#include "kep/ZuSock.h"

// The end of something that may take so many milliseconds. It stands when a signal interrupts the wait: the same wait
// goes on with the time that is left.
class Deadline {
 public:
  static constexpr int32_t kNoLimit = -1;

  explicit Deadline(int32_t limitMs) : isSet_(limitMs >= 0), end_(isSet_ ? nowMs() + limitMs : 0) {}

  bool isSet() const { return isSet_; }
  bool isOver() const { return isSet_ && leftMs() == 0; }

  // Waits until the socket is ready for these events of poll, which it is asked at least once; false when the time is
  // over first, or for a bad descriptor. Asks poll, which unlike select takes a descriptor of any number. A socket that
  // was ready may yet have nothing to give: whoever then comes again asks isOver first, or may never be done.
  bool waitFor(int fd, short events) const {
    if (fd < 0) return false;  // poll would pass it over
    pollfd wait = {fd, events, 0};
    int ready;
    do {
      ready = poll(&wait, 1, leftMs());
    } while (ready < 0 && errno == EINTR);
    return ready > 0 && (wait.revents & POLLNVAL) == 0;
  }

 private:
  static int64_t nowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
  }

  int leftMs() const {
    if (!isSet_) return kNoLimit;
    const int64_t left = end_ - nowMs();
    return left > 0 ? static_cast<int>(left) : 0;
  }

  bool isSet_;
  int64_t end_;
};
