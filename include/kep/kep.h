/* kep.h: all of kep.
 *
 * The state behind its functions is the process's, and nothing locks until the host asks for it. Without a lock the
 * host serialises its calls: one thread until the service starts, then only the serving thread, inside the items'
 * callbacks; the timer loop may have a thread of its own when its callbacks neither allocate, as containers do, nor
 * print nor format dates. Calls that touch only the host's own memory may come from any thread: the codec but for its
 * dumps, the key hash, the sockets, and strings formatted into the host's buffer. So may Collect_Stop and ZuTimer_Stop,
 * which are safe in signal handlers too. A debug build says on standard error, once, when another thread than the
 * serving one calls, and names the function; containers and dates it does not watch.
 *
 * With a lock (Kep_SetLock, or KepPosix_UseThreads of the POSIX service layer) these may be called from any thread at
 * any time, the service running or not: loggers, faults, function logs, record stores, the print sink, tracked memory,
 * the registry of timers, items, statistics, dates and formatting. Each header says what holds for its module; what
 * stays the host's to serialise is:
 *
 *   - its own objects: containers, tables, print objects and what the codec works on, as it does with the containers of
 *     a standard library. The memory under them is accounted for safely;
 *   - pointers into a store, from ZuInfo_Get, ZuInfo_GetPack and ZuFuncLog_Get: they hold until the next write to that
 *     store by anyone. Packing in place after ZuInfo_PackPre, and reading the exported globals;
 *   - releasing an object, which nobody else may use then;
 *   - Collect_Put..., sections and CollectClient_..., which belong to the serving thread; ZuConfig_... and
 *     ZuTimer_Loop, to one thread at a time.
 *
 * The lock is not held across a callback of the host's, a network call, a delay, a call of VRK_RawPrint or the writing
 * of the fault file, so what waits there holds up no thread that logs (but for the store's trace, an aid for
 * debugging). A host that holds a lock of its own around a call that prints, shows, sends or runs callbacks holds that
 * one across the wait; so it does with the lock that it gave to the library, if it takes that itself.
 *
 * A child that the host forks while other threads run may find the lock held for ever: until it executes a program it
 * calls nothing of the library. */
#ifndef KEP_KEP_H
#define KEP_KEP_H

#include "kep/Collect.h"
#include "kep/CollectClient.h"
#include "kep/ZuBuf.h"
#include "kep/ZuBuffer.h"
#include "kep/ZuConfig.h"
#include "kep/ZuFault.h"
#include "kep/ZuFuncLog.h"
#include "kep/ZuHash.h"
#include "kep/ZuInfo.h"
#include "kep/ZuList.h"
#include "kep/ZuLogger.h"
#include "kep/ZuMD5.h"
#include "kep/ZuMem.h"
#include "kep/ZuPrint.h"
#include "kep/ZuSet.h"
#include "kep/ZuSock.h"
#include "kep/ZuString.h"
#include "kep/ZuTable.h"
#include "kep/ZuTime.h"
#include "kep/ZuTimer.h"
#include "kep/api.h"
#include "kep/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The version of these headers. */
#define KEP_VERSION_MAJOR 0
#define KEP_VERSION_MINOR 2
#define KEP_VERSION_PATCH 0
#define KEP_VERSION "0.2.0"

/* The version of the library that is linked, as a text that is never freed. */
KEP_API const char *Kep_Version(void);

/* Makes the library safe to call from any thread, as said above, by a lock of the host's that nests: a thread may lock
 * again what it has locked. To be called once, before any other call and any other thread: a second call, or one after
 * an allocation, is ignored, and so is one with a NULL. Without it there is no locking. */
KEP_API void Kep_SetLock(void (*lock)(void), void (*unlock)(void));

#ifdef __cplusplus
}
#endif

#endif
