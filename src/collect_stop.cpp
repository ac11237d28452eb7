// collect_stop.cpp: the stop of the serving loop.
//
// A stop comes at any moment from any thread, or from a signal handler on any thread. It sets a flag and shuts a socket
// down that is there for nothing else, and that hangs up for every poll from then on. Unlike a write, that cannot find
// it full, and no thread is cancelled in it. So whoever looks at the flag and then polls misses no stop.
#include "collect_stop.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "ZuWrite.hpp"
#include "kep/Collect.h"
#include "kep/platform.h"

namespace {

constexpr int kServing = 1;
constexpr int kStopped = 2;

// Shared by threads, without a lock.
int l_state;          // the two above
int l_stopsUnderWay;  // who may yet shut the socket down
int l_wake = -1;      // the socket; -1 outside the service
pid_t l_process;      // whose service it is: a child that it forks has the socket, too

int read(const int &value) { return __atomic_load_n(&value, __ATOMIC_RELAXED); }

// Closed only when nobody uses it any more: the next moment its number may be another file's. It sleeps meanwhile, as
// who is waited for may have the lower priority.
void closeWake() {
  const int wake = __atomic_exchange_n(&l_wake, -1, __ATOMIC_SEQ_CST);
  while (__atomic_load_n(&l_stopsUnderWay, __ATOMIC_SEQ_CST) > 0) poll(nullptr, 0, 1);
  ZuSock_UDP_Close(wake);
}

}  // namespace

bool beginService() {
  if (__atomic_fetch_or(&l_state, kServing, __ATOMIC_SEQ_CST) & kServing) return false;
  const int wake = kep::aboveStandard(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  __atomic_store_n(&l_process, getpid(), __ATOMIC_RELAXED);
  __atomic_store_n(&l_wake, wake, __ATOMIC_SEQ_CST);  // a stop that does not find it yet has set the flag for the loop
  if (wake < 0) __atomic_fetch_and(&l_state, ~kServing, __ATOMIC_SEQ_CST);
  return wake >= 0;
}

bool endService() {
  closeWake();
  return __atomic_exchange_n(&l_state, 0, __ATOMIC_SEQ_CST) & kStopped;
}

bool isServing() { return read(l_wake) >= 0; }

bool isStopped() { return __atomic_load_n(&l_state, __ATOMIC_SEQ_CST) == (kServing | kStopped); }

bool waitUnlessStopped(const Deadline &deadline, int fd, short events) {
  return !isStopped() && deadline.waitFor(fd, events, read(l_wake));
}

void pauseUnlessStopped(int32_t ms) {
  const Deadline pause(ms);
  const bool isWoken = pause.waitFor(read(l_wake), 0);
  if (!isWoken && !pause.isOver()) VRK_Delay(static_cast<uint32_t>(ms));  // outside the service; or poll fails
}

void Collect_Stop(void) {
  const int savedErrno = errno;
  __atomic_add_fetch(&l_stopsUnderWay, 1, __ATOMIC_SEQ_CST);
  __atomic_fetch_or(&l_state, kStopped, __ATOMIC_SEQ_CST);
  const int wake = __atomic_load_n(&l_wake, __ATOMIC_SEQ_CST);
  if (wake >= 0 && read(l_process) == getpid()) shutdown(wake, SHUT_RDWR);
  __atomic_sub_fetch(&l_stopsUnderWay, 1, __ATOMIC_SEQ_CST);
  errno = savedErrno;
}
