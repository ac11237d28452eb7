/* ZuTimer.h: periodic callbacks, run from one loop on a thread of the host's.
 *
 * A pass over the registry is made every 100 ms and runs each timer at most once. A callback may register another
 * timer, which the next pass picks up. Without a lock (Kep_SetLock) registrations from other threads should precede the
 * loop; with it they may come from any thread at any time. Callbacks run without the lock. */
#ifndef KEP_ZUTIMER_H
#define KEP_ZUTIMER_H

#include <stdint.h>

#include "kep/ZuList.h"
#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Takes the timer's interval in milliseconds; returning 0 stops the timer for good. */
typedef int32_t (*ZuTimerCallback)(int32_t interval);

/* The registered timers, stopped ones included; NULL before the first. */
extern KEP_API ZuList *g_ZuTimer_List;

/* Registers a callback to be called every `interval` milliseconds, the first time one interval from now; an interval of
 * 0 means every pass. Time is measured by ZuTime_GetUTime, which wraps every 71.6 minutes, when every timer is due.
 * Returns 1, or 0 when memory for the timer is short; when memory for its place in the registry is short, the timer is
 * lost without a word. */
KEP_API int32_t ZuTimer_Regist(ZuTimerCallback callback, uint32_t interval);

/* Runs the timers until it is stopped. One thread at a time. */
KEP_API void ZuTimer_Loop(void);

/* Prints the current millisecond count and every timer with a callback. */
KEP_API void ZuTimer_Show(void);

/* Stops the loop: it returns after the pass under way, or when the pause between two passes is over. A stop while no
 * loop runs ends the next one at once, and any number of stops until then are one. From any thread or a signal
 * handler, without a lock; never blocks. */
KEP_API void ZuTimer_Stop(void);

#ifdef __cplusplus
}
#endif

#endif
