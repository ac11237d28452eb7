// Kep.cpp: the version, and the host's lock.
#include "Kep.hpp"

#include <cassert>
#include <cstdio>

#include "ZuMem.hpp"
#include "kep/kep.h"

LockHooks g_lockHooks;

#ifndef NDEBUG

namespace {

thread_local int l_held;
thread_local bool l_isServing;
thread_local bool l_isTimerLoop;
bool l_serves;  // these two are shared by threads, without a lock
bool l_isSaid;

}  // namespace

void takeLock() {
  g_lockHooks.lock();
  ++l_held;
}

void giveLock() {
  --l_held;
  g_lockHooks.unlock();
}

void noteCall(const char *function) {
  if (hasLock() || l_isServing || l_isTimerLoop || !__atomic_load_n(&l_serves, __ATOMIC_RELAXED)) return;
  if (__atomic_exchange_n(&l_isSaid, true, __ATOMIC_RELAXED)) return;
  std::fprintf(stderr, "kep: %s is called beside the serving thread, and there is no lock (Kep_SetLock)\n", function);
}

void noteWaiting() { assert(l_held == 0 && "what waits is not called under the lock"); }

void noteService(bool begins) {
  l_isServing = begins;
  __atomic_store_n(&l_serves, begins, __ATOMIC_RELAXED);
}

void noteTimerLoop(bool begins) { l_isTimerLoop = begins; }

#endif

const char *Kep_Version(void) { return KEP_VERSION; }

void Kep_SetLock(void (*lock)(void), void (*unlock)(void)) {
  if (!lock || !unlock || hasLock() || hasAllocated()) return;
  g_lockHooks = {lock, unlock};
}
