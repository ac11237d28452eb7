#include "faults/system_calls.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "support/platform_double.hpp"

static thread_local Plan *plans;  // the latest first
static thread_local int longestWait;

Plan::Plan(const char *call, int error, int nth, int times, size_t count)
    : call_(call), error_(error), nth_(nth), times_(times), count_(count), next_(plans) {
  plans = this;
}

Plan::~Plan() {
  plans = next_;
  EXPECT_TRUE(isAsked_ || wasMet()) << "no call number " << nth_ << " of " << call_;
}

bool Plan::wasMet() {
  isAsked_ = true;
  return calls_ >= nth_;
}

bool Plan::fails(const char *call, size_t *count) {
  for (const char *waiting :
       {"connect", "send", "recv", "sendto", "recvfrom", "poll", "open", "write", "fsync", "rename", "usleep"}) {
    const bool maybeTraces = KEP_STORE_TRACE && *waiting == 'w';  // the store's trace is written under the lock
    if (std::strcmp(call, waiting) == 0 && !maybeTraces) platform::expectNoLockHeld(call);
  }
  int error = 0;
  for (Plan *plan = plans; plan; plan = plan->next_) {
    if (std::strcmp("*", plan->call_) != 0 && std::strcmp(call, plan->call_) != 0) continue;
    const int number = ++plan->calls_ - plan->nth_;
    if (number < 0 || number >= plan->times_) continue;
    if (plan->error_ == kAct) {
      action();
      continue;
    }
    const bool fallsShort = plan->count_ != SIZE_MAX && (number == 0 || plan->error_ == 0);
    if (fallsShort) *count = std::min(*count, plan->count_);
    if (!fallsShort) error = plan->error_;
  }
  if (error != 0) errno = error;
  return error != 0;
}

int takeLongestWait() { return std::exchange(longestWait, 0); }

// WRAP(result, name, (parameters), value of a failure, arguments...); WRAP_AS: plans know it as another call
#define WRAP_AS(call, result, name, parameters, failure, ...) \
  result __real_##name parameters;                            \
  result __wrap_##name parameters { return Plan::fails(call) ? (failure) : __real_##name(__VA_ARGS__); }
#define WRAP(result, name, ...) WRAP_AS(#name, result, name, __VA_ARGS__)

extern "C" {

#if __SIZEOF_LONG__ == 4  // where libc has these under other names for times of 64 bits
#define OF_64_BITS(result, name, parameters, name64)     \
  result __real_##name parameters asm("__real_" name64); \
  result __wrap_##name parameters asm("__wrap_" name64);
OF_64_BITS(int, gettimeofday, (timeval *, void *), "__gettimeofday64")
OF_64_BITS(tm *, localtime_r, (const time_t *, tm *), "__localtime64_r")
OF_64_BITS(time_t, time, (time_t *), "__time64")

// What a library built for them throughout calls.
WRAP_AS("fcntl", int, __fcntl_time64, (int fd, int command, long argument), -1, fd, command, argument)
WRAP_AS("open", int, open64, (const char *path, int flags, mode_t mode), -1, path, flags, mode)
WRAP_AS("setsockopt", int, __setsockopt64, (int fd, int level, int name, const void *value, socklen_t size), -1, fd,
        level, name, value, size)
WRAP_AS("getsockopt", int, __getsockopt64, (int fd, int level, int name, void *value, socklen_t *size), -1, fd, level,
        name, value, size)
#endif

WRAP(int, socket, (int domain, int type, int protocol), -1, domain, type, protocol)
WRAP(int, bind, (int fd, const sockaddr *name, socklen_t size), -1, fd, name, size)
WRAP(ssize_t, recv, (int fd, void *data, size_t size, int flags), -1, fd, data, size, flags)
WRAP(ssize_t, sendto, (int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t toSize), -1, fd,
     data, size, flags, to, toSize)
WRAP(ssize_t, recvfrom, (int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *fromSize), -1, fd, data,
     size, flags, from, fromSize)
WRAP(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t size), -1, fd, level, name, value,
     size)
WRAP(int, getsockopt, (int fd, int level, int name, void *value, socklen_t *size), -1, fd, level, name, value, size)
WRAP(int, getsockname, (int fd, sockaddr *name, socklen_t *size), -1, fd, name, size)
WRAP(int, getpeername, (int fd, sockaddr *name, socklen_t *size), -1, fd, name, size)
WRAP(int, fcntl, (int fd, int command, long argument), -1, fd, command, argument)
WRAP(int, open, (const char *path, int flags, mode_t mode), -1, path, flags, mode)
WRAP(int, close, (int fd), (__real_close(fd), -1), fd)  // closed all the same
WRAP(int, rename, (const char *from, const char *to), -1, from, to)
WRAP(int, unlink, (const char *path), -1, path)
WRAP(int, gettimeofday, (timeval * now, void *zone), -1, now, zone)
WRAP(tm *, localtime_r, (const time_t *t, tm *out), nullptr, t, out)
WRAP(int, usleep, (useconds_t micros), -1, micros)

int __wrap_fsync(int) { return Plan::fails("fsync") ? -1 : 0; }  // a disk takes long, and nothing here can tell

void __real_tzset();
void __wrap_tzset() {
  Plan::fails("tzset");
  __real_tzset();
}

time_t __real_time(time_t *now);
time_t __wrap_time(time_t *now) {
  auto seconds = static_cast<size_t>(__real_time(now));
  return Plan::fails("time", &seconds) ? -1 : static_cast<time_t>(seconds);
}

int __real_shutdown(int fd, int how);
int __wrap_shutdown(int fd, int how) {
  if (Plan::fails("shutdown")) __real_usleep(1000);  // is made late
  return __real_shutdown(fd, how);
}

int __real_connect(int fd, const sockaddr *name, socklen_t size);
int __wrap_connect(int fd, const sockaddr *name, socklen_t size) {
  if (!Plan::fails("connect")) return __real_connect(fd, name, size);
  if (errno != EINTR) return -1;
  __real_connect(fd, name, size);  // goes on being made
  errno = EINTR;
  return -1;
}

int __real_poll(pollfd *sockets, nfds_t count, int timeoutMs);
int __wrap_poll(pollfd *sockets, nfds_t count, int timeoutMs) {
  longestWait = std::max(longestWait, timeoutMs < 0 ? INT_MAX : timeoutMs);
  if (timeoutMs == 0 || !Plan::fails("poll")) return __real_poll(sockets, count, timeoutMs);
  const int error = errno;
  __real_poll(nullptr, 0, 1);  // an interruption comes after a while
  errno = error;
  return -1;
}

ssize_t __real_send(int fd, const void *data, size_t size, int flags);
ssize_t __wrap_send(int fd, const void *data, size_t size, int flags) {
  return Plan::fails("send", &size) ? -1 : __real_send(fd, data, size, flags);
}

ssize_t __real_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size) {
  return Plan::fails("write", &size) ? -1 : __real_write(fd, data, size);
}
}
