// threads.cpp: the lock of a Linux host with threads. An object of its own, which links beside another service layer.
#include <pthread.h>

#include "kep/kep.h"

#ifndef KEP_POSIX_PRIO_INHERIT
#define KEP_POSIX_PRIO_INHERIT 1
#endif

namespace {

pthread_mutex_t l_mutex;
pthread_once_t l_once = PTHREAD_ONCE_INIT;

void lock() { pthread_mutex_lock(&l_mutex); }

void unlock() { pthread_mutex_unlock(&l_mutex); }

void install() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  // A thread that waits lends its priority to the one that holds the lock, so that no third one holds up both.
  if (KEP_POSIX_PRIO_INHERIT) pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
  if (pthread_mutex_init(&l_mutex, &attributes) != 0) {  // not every kernel knows how
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_NONE);
    pthread_mutex_init(&l_mutex, &attributes);
  }
  pthread_mutexattr_destroy(&attributes);
  Kep_SetLock(lock, unlock);
}

}  // namespace

void KepPosix_UseThreads(void) { pthread_once(&l_once, install); }
