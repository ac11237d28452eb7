// ZuTimer.cpp: a registry of periodic callbacks and the loop that polls it.
#include "kep/ZuTimer.h"

#include "ZuList.hpp"
#include "kep/ZuMem.h"
#include "kep/ZuPrint.h"
#include "kep/ZuString.h"
#include "kep/ZuTime.h"

ZuList *g_ZuTimer_List;

namespace {

constexpr uint32_t kPassMs = 100;

enum Status : int32_t { kStopped, kActive };

struct ZuTimer {
  ZuTimerCallback callback;
  uint32_t interval;  // milliseconds
  uint32_t last;      // stamp of the registration, then of the latest call
  int32_t status;
  uint32_t times;  // calls made; a timer of every pass wraps a signed count in seven years
};
static_assert(sizeof(void *) != 4 || sizeof(ZuTimer) == 20, "the board's record");

uint32_t stampMs() { return ZuTime_GetUTime() / 1000; }

void runIfDue(ZuTimer *timer, uint32_t now) {
  if (!timer->callback || timer->status == kStopped || now - timer->last < timer->interval) return;
  if (timer->callback(static_cast<int32_t>(timer->interval)) == 0) timer->status = kStopped;
  timer->last = now;
  ++timer->times;
}

// One stamp for the whole pass. Timers registered meanwhile wait for the next.
void runPass() {
  const ListWalk<ZuTimer> registered(g_ZuTimer_List);
  const uint32_t now = stampMs();
  ZuTimer *timer;
  for (ListWalk<ZuTimer> walk = registered; walk.next(&timer);) {
    if (timer) runIfDue(timer, now);
  }
}

}  // namespace

int32_t ZuTimer_Regist(ZuTimerCallback callback, uint32_t interval) {
  if (!g_ZuTimer_List) g_ZuTimer_List = ZuList_New(0, ZuMem_LocalFree);
  auto *timer = static_cast<ZuTimer *>(ZuMem_LocalMalloc(sizeof(ZuTimer)));
  if (!timer) return 0;
  *timer = {callback, interval, stampMs(), kActive, 0};
  if (!ZuList_Append(g_ZuTimer_List, timer)) ZuMem_LocalFree(timer);
  return 1;
}

void ZuTimer_Loop(void) {
  for (;;) {
    runPass();
    ZuTime_Sleep(kPassMs);
  }
}

void ZuTimer_Show(void) {
  ZuPrint_Show(ZuString_SFormat("current tm=%d\n", static_cast<int>(stampMs())), 0);
  ZuTimer *timer;
  for (ListWalk<ZuTimer> walk(g_ZuTimer_List); walk.next(&timer);) {
    if (!timer || !timer->callback) continue;
    ZuPrint_Show(ZuString_SFormat("last=%d,interval=%d,status=%d,times=%d\n", static_cast<int>(timer->last),
                                  static_cast<int>(timer->interval), static_cast<int>(timer->status),
                                  static_cast<int>(timer->times)),
                 0);
  }
}
