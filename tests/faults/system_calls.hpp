// system_calls.hpp: lets system calls fail, fall short or be interrupted, as planned. The linker leads the calls here.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>

// Holds, while it lives, for the calls that its thread makes: a server on another thread is left alone. Several may
// hold at once; each counts for itself, "*" all calls. A plan that no call has met fails the test, unless the test
// asks.
class Plan {
 public:
  static constexpr int kOn = INT_MAX;  // as `times`: from the n-th call on
  static constexpr int kAct = -1;      // as `error`: this is done first, and the call then works
  static inline void (*action)();

  // The n-th call and so many in all fail with `error`; but with a `count` the first of them, or without an error all,
  // write so much at most, or give this time.
  Plan(const char *call, int error, int nth = 1, int times = 1, size_t count = SIZE_MAX);
  ~Plan();
  Plan(const Plan &) = delete;

  bool wasMet();

  // A call that is being made: whether it fails, with errno set; `count` is lowered if it falls short.
  static bool fails(const char *call, size_t *count = nullptr);

 private:
  const char *const call_;
  const int error_, nth_, times_;
  const size_t count_;
  Plan *const next_;
  int calls_ = 0;
  bool isAsked_ = false;
};

// The longest time that a poll of this thread was given since the last call, in ms; INT_MAX: for ever.
int takeLongestWait();
