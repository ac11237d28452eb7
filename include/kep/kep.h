/* kep.h: all of kep.
 *
 * Nothing in it locks, and the state behind its functions is the process's. The host serialises its calls: one thread
 * until the service starts, then only the serving thread, inside the items' callbacks; the timer loop may have a thread
 * of its own when its callbacks neither allocate nor print. Calls that touch only the host's own memory may come from
 * any thread: the codec but for its dumps, the key hash, the sockets, and strings formatted into the host's buffer. */
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

/* Makes the library safe to call from any thread, by a lock of the host's that nests: a thread may lock again what it
 * has locked. To be called once, before any other call: a second call, or one after an allocation, is ignored, and so
 * is one with a NULL. Without it there is no locking. */
KEP_API void Kep_SetLock(void (*lock)(void), void (*unlock)(void));

#ifdef __cplusplus
}
#endif

#endif
