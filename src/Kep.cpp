// Kep.cpp: the version, and the host's lock.
#include "Kep.hpp"

#include <cassert>
#include <cstdio>

#include "ZuMem.hpp"
#include "kep/kep.h"

LockHooks g_lockHooks;

#ifdef NDEBUG

inline void noteHeld(int) {}

#else

namespace {

// Of this thread. The model is one that asks nobody but the C library for the address.
#define OF_THREAD thread_local __attribute__((tls_model("initial-exec")))
OF_THREAD int l_held;
OF_THREAD bool l_isServing;
OF_THREAD bool l_isTimerLoop;

bool l_serves;  // these two are shared by threads, without a lock
bool l_isSaid;

void noteHeld(int change) { l_held += change; }

}  // namespace

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

#if !defined NDEBUG || defined __OPTIMIZE_SIZE__

void takeLock() {
  if (!hasLock()) return;
  g_lockHooks.lock();
  noteHeld(1);
}

void giveLock() {
  if (!hasLock()) return;
  noteHeld(-1);
  g_lockHooks.unlock();
}

#endif

const char *Kep_Version(void) { return KEP_VERSION; }

void Kep_SetLock(void (*lock)(void), void (*unlock)(void)) {
  if (!lock || !unlock || hasLock() || hasAllocated()) return;
  g_lockHooks = {lock, unlock};
}
