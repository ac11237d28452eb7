// ZuTimer.cpp: a registry of periodic callbacks and the loop that polls it.
#include "kep/ZuTimer.h"

#include "Kep.hpp"
#include "ZuList.hpp"
#include "ZuMem.hpp"
#include "kep/ZuPrint.h"
#include "kep/ZuString.h"
#include "kep/ZuTime.h"

ZuList *g_ZuTimer_List;

namespace {

constexpr uint32_t kPassMs = 100;

enum Status : int32_t { kInactive, kActive };

struct ZuTimer {
  ZuTimerCallback callback;
  uint32_t interval;  // milliseconds
  uint32_t last;      // stamp of the registration, then of the latest call
  int32_t status;
  uint32_t times;  // calls made; a timer of every pass wraps a signed count in seven years
};
static_assert(sizeof(void *) != 4 || sizeof(ZuTimer) == 20, "the board's record");

uint32_t stampMs() { return ZuTime_GetUTime() / 1000; }

int32_t l_isToStop;  // set by signal handlers, too

bool takeStop() { return __atomic_exchange_n(&l_isToStop, 0, __ATOMIC_RELAXED) != 0; }

// ---- the registry, under the lock for one timer at a time

ListWalk<ZuTimer> registered() {
  const Locked locked;
  return ListWalk<ZuTimer>(g_ZuTimer_List);
}

bool next(ListWalk<ZuTimer> *walk, ZuTimer **out) {
  const Locked locked;
  return walk->next(out);
}

// ---- the loop

// Only the loop changes a timer, and so may read it without the lock; the callback runs without it.
void runIfDue(ZuTimer *timer, uint32_t now) {
  if (!timer->callback || timer->status == kInactive || now - timer->last < timer->interval) return;
  const bool goesOn = timer->callback(static_cast<int32_t>(timer->interval)) != 0;
  const Locked locked;
  if (!goesOn) timer->status = kInactive;
  timer->last = now;
  ++timer->times;
}

// One stamp for the whole pass. Timers registered meanwhile wait for the next.
void runPass() {
  ListWalk<ZuTimer> walk = registered();
  const uint32_t now = stampMs();
  for (ZuTimer *timer; next(&walk, &timer);) {
    if (timer) runIfDue(timer, now);
  }
}

void showTimer(const ZuTimer *shared) {
  ZuTimer timer;
  {
    const Locked locked;
    timer = *shared;
  }
  if (!timer.callback) return;
  ZuPrint_Show(
      ZuString_SFormat("last=%d,interval=%d,status=%d,times=%d\n", static_cast<int>(timer.last),
                       static_cast<int>(timer.interval), static_cast<int>(timer.status), static_cast<int>(timer.times)),
      0);
}

}  // namespace

int32_t ZuTimer_Regist(ZuTimerCallback callback, uint32_t interval) {
  const Guarded guard(__func__);
  if (!g_ZuTimer_List) g_ZuTimer_List = ZuList_New(0, ZuMem_LocalFree);
  auto *timer = static_cast<ZuTimer *>(takeLocal(sizeof(ZuTimer)));
  if (!timer) return 0;
  *timer = {callback, interval, stampMs(), kActive, 0};
  if (!ZuList_Append(g_ZuTimer_List, timer)) giveLocal(timer);
  return 1;
}

void ZuTimer_Loop(void) {
  noteTimerLoop(true);
  while (!takeStop()) {
    runPass();
    if (takeStop()) break;
    ZuTime_Sleep(kPassMs);
  }
  noteTimerLoop(false);
}

void ZuTimer_Show(void) {
  const Waiting mark(__func__);
  ZuPrint_Show(ZuString_SFormat("current tm=%d\n", static_cast<int>(stampMs())), 0);
  ListWalk<ZuTimer> walk = registered();
  for (ZuTimer *timer; next(&walk, &timer);) {
    if (timer) showTimer(timer);
  }
}

void ZuTimer_Stop(void) { __atomic_store_n(&l_isToStop, 1, __ATOMIC_RELAXED); }
