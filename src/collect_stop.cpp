// collect_stop.cpp: the stop of the serving loop.
//
// A stop comes at any moment from any thread, or from a signal handler on any thread. It sets a flag and shuts down one
// of two connected sockets, which then hangs up for every poll to come. Unlike a write, that cannot find it full, and
// no thread is cancelled in it. Whoever looks at the flag and then waits misses neither.
#include "collect_stop.hpp"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "ZuSock.hpp"
#include "kep/Collect.h"

namespace {

constexpr int kNone = -1;

// Shared by threads, without a lock.
int l_isServing;
int l_isStopped;
int l_stopsUnderWay;  // who may yet shut the wake socket down
int l_wake = kNone;

int l_wakePeer = kNone;

int load(const int &value) { return __atomic_load_n(&value, __ATOMIC_SEQ_CST); }

int exchange(int *value, int next) { return __atomic_exchange_n(value, next, __ATOMIC_SEQ_CST); }

bool openWake() {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return false;
  l_wakePeer = aboveStandard(pair[0]);
  exchange(&l_wake, aboveStandard(pair[1]));
  return l_wakePeer >= 0 && load(l_wake) >= 0;
}

void closeWake() {
  const int wake = exchange(&l_wake, kNone);
  // Closed only when nobody uses it any more: the next moment its number may be another file's. It sleeps, as who is
  // waited for may have the lower priority.
  while (load(l_stopsUnderWay) > 0) poll(nullptr, 0, 1);
  ZuSock_UDP_Close(wake);
  ZuSock_UDP_Close(l_wakePeer);
  l_wakePeer = kNone;
}

}  // namespace

bool beginService() {
  if (exchange(&l_isServing, true)) return false;
  if (openWake()) return true;
  closeWake();
  exchange(&l_isServing, false);
  return false;
}

bool endService() {
  closeWake();
  const bool wasStopped = exchange(&l_isStopped, false);
  exchange(&l_isServing, false);
  return wasStopped;
}

bool isStopped() { return wakeDescriptor() != kNone && load(l_isStopped); }

int wakeDescriptor() { return load(l_wake); }

void Collect_Stop(void) {
  const int savedErrno = errno;
  __atomic_add_fetch(&l_stopsUnderWay, 1, __ATOMIC_SEQ_CST);
  exchange(&l_isStopped, true);
  const int wake = load(l_wake);
  if (wake != kNone) shutdown(wake, SHUT_RDWR);
  __atomic_sub_fetch(&l_stopsUnderWay, 1, __ATOMIC_SEQ_CST);
  errno = savedErrno;
}
