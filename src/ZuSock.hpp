// ZuSock.hpp: waiting for a socket, for a while or for ever.
#pragma once

#include <cstdint>

#include "kep/ZuSock.h"

// The end of something that may take so many milliseconds. It stands when a signal interrupts the wait: the same wait
// goes on with the time that is left.
class Deadline {
 public:
  static constexpr int32_t kNoLimit = -1;

  explicit Deadline(int32_t limitMs);

  bool isSet() const { return isSet_; }
  bool isOver() const;

  // Waits until the socket is ready for these events of poll, which it is asked at least once; false when the time is
  // over first, when another descriptor, `wake`, hangs up, or for a bad descriptor. Asks poll, which unlike select
  // takes a descriptor of any number. A socket that was ready may yet have nothing to give: whoever then comes again
  // asks isOver first, or may never be done.
  bool waitFor(int fd, short events, int wake = -1) const;

 private:
  int leftMs() const;

  bool isSet_;
  int64_t end_;
};
