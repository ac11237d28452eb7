// Kep.hpp: the host's lock, and how each function says what it does with it.
//
// Two kinds of function are marked at their first line. A guarded one holds the lock for the whole call and calls
// nothing that waits: no callback of the host's, no socket, no delay, no console, no fault file. A waiting one takes
// the lock piece by piece, with Locked, and is never called by a guarded one. Without a lock, the default, each mark is
// a branch that is never taken.
//
// Without a mark are the codec, sockets, the timers' loop and the stops, which any thread may call even without a lock,
// and what takes the lock inside: containers, for their memory, and dates. Of those a debug build does not complain.
#pragma once

#pragma GCC visibility push(hidden)

struct LockHooks {
  void (*lock)();  // both NULL: no lock
  void (*unlock)();
};
extern LockHooks g_lockHooks;

inline bool hasLock() { return g_lockHooks.lock != nullptr; }

#if defined NDEBUG && !defined __OPTIMIZE_SIZE__
inline void takeLock() {
  if (hasLock()) g_lockHooks.lock();
}
inline void giveLock() {
  if (hasLock()) g_lockHooks.unlock();
}
#else
void takeLock();
void giveLock();
#endif

#ifdef NDEBUG
inline void noteCall(const char *) {}
inline void noteWaiting() {}
inline void noteService(bool) {}
inline void noteTimerLoop(bool) {}
#else
// Says once, on standard error, that a host without a lock calls from another thread than the serving one.
void noteCall(const char *function);
// Fails an assertion when this thread holds the lock.
void noteWaiting();
// This thread begins or ends to serve; to run the timers, whose callbacks have always had a thread of their own.
void noteService(bool begins);
void noteTimerLoop(bool begins);
#endif

#pragma GCC visibility pop

// Holds the lock while it lives. A thread may hold it several times.
class Locked {
 public:
  Locked() { takeLock(); }
  ~Locked() { giveLock(); }
  Locked(const Locked &) = delete;
  Locked &operator=(const Locked &) = delete;
};

// The first line of a guarded function: const Guarded guard(__func__);
class Guarded {
 public:
  explicit Guarded(const char *function) { noteCall(function); }

 private:
  const Locked locked_;
};

// The first line of a waiting function: const Waiting mark(__func__);
struct Waiting {
  explicit Waiting(const char *function) {
    noteCall(function);
    noteWaiting();
  }
};
