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
#include "kep/platform.h"

#endif
