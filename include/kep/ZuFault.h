/* ZuFault.h: a registry of modules (faults) that keep logs and record values, saved together to one file.
 *
 * A fault lives for the life of the process. It has two loggers; values of all faults share one store of 10 MiB that is
 * made with the first value and dropped when they have been saved. Every setter returns 0 whatever happens, accepts a
 * NULL fault, and, the logs excepted, records even while the fault is ignored.
 *
 * With Kep_SetLock every function may be called from any thread at any time. The lock is not held while a fault's
 * callback runs, while text is printed, or while the file is written: other threads log and record meanwhile. Those
 * that print, pause or run callbacks (ZuFault_SetInitLog, ZuFault_SetRunLog, ZuFault_Show..., ZuFault_Start) are not to
 * be called with the lock held. Without Kep_SetLock: register, record and collect from one thread at a time.
 *
 * The file (KEP_FAULT_LOG_PATH, by default "/kep.log", unless ZuFault_SetFile names another), all integers big endian:
 *   for each fault, the records of its init log (tag "log") and then of its run log (tag "run"):
 *     length of what follows (2) | tag (3) | ' ' | name | ' ' | time stamp or line
 *   two zero bytes
 *   for each value, oldest first:
 *     length of what follows (2) | length of the name + 1 (1) | item type (1) | name | value
 * Item types and values: 0 register and 3 counter: id (4), value (4); 1 register and 4 counter: id (4), value (8);
 * 2 register, 5 counter and 6 value: id (4), length (4), bytes. A record too long for its length field is cut at its
 * end, and a cut value keeps its own, uncut length: a reader goes by the outer one. */
#ifndef KEP_ZUFAULT_H
#define KEP_ZUFAULT_H

#include <stdint.h>

#include "kep/ZuBuf.h"
#include "kep/ZuInfo.h"
#include "kep/ZuList.h"
#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZuFault ZuFault; /* a fault, known by its address only */

/* Is run by ZuFault_Start, to record values. */
typedef void (*ZuFaultCallback)(void);

/* Types of the items in the file, named as the functions that record them. */
enum {
  ZUFAULT_REGIST = 0,
  ZUFAULT_REGIST64 = 1,
  ZUFAULT_REGIST_EX = 2,
  ZUFAULT_COUNTER = 3,
  ZUFAULT_COUNTER64 = 4,
  ZUFAULT_COUNTER_EX = 5,
  ZUFAULT_VALUE = 6
};

/* The registered faults, NULL before the first; the recorded values, NULL while there are none. With a lock other
 * threads change both at any time: who reads them sees to it that none does. */
extern KEP_API ZuList *g_ZuFault_List;
extern KEP_API ZuInfo *g_ZuFault_Info;

/* Registers a fault under `name` (cut at 22 bytes) with a callback that ZuFault_Start runs, or NULL. A name may be
 * registered again as another fault. Values refer to a fault by the low 8 bits of its position. Returns the fault,
 * owned by the list, or NULL when memory is short or the name is NULL. */
KEP_API ZuFault *ZuFault_Regist(const char *name, ZuFaultCallback callback);

/* Non-zero: lines for the fault's logs are dropped from now on. */
KEP_API void ZuFault_Ignore(ZuFault *fault, int32_t on);

/* Keeps a value for the host's use. */
KEP_API int32_t ZuFault_SetInfo(ZuFault *fault, uint32_t value);

/* Add a line to the init or the run log, as ZuLogger_Append does. */
KEP_API int32_t ZuFault_SetInitLog(ZuFault *fault, int32_t level, int32_t unused, const char *text);
KEP_API int32_t ZuFault_SetRunLog(ZuFault *fault, int32_t level, int32_t unused, const char *text);

/* Record a register, a counter or a value. `len` is the number of bytes, at most 65527; others are not recorded. */
KEP_API int32_t ZuFault_SetRegist(ZuFault *fault, uint32_t id, uint32_t value);
KEP_API int32_t ZuFault_SetRegist64(ZuFault *fault, uint32_t id, uint64_t value);
KEP_API int32_t ZuFault_SetRegistEx(ZuFault *fault, uint32_t id, const void *data, int32_t len);
KEP_API int32_t ZuFault_SetCounter(ZuFault *fault, uint32_t id, uint32_t value);
KEP_API int32_t ZuFault_SetCounter64(ZuFault *fault, uint32_t id, uint64_t value);
KEP_API int32_t ZuFault_SetCounterEx(ZuFault *fault, uint32_t id, const void *data, int32_t len);
KEP_API int32_t ZuFault_SetValue(ZuFault *fault, uint32_t id, const void *data, int32_t len);

/* Append the init or the run log to `buffer`, or print it, as ZuLogger_ShowToBuf does, pauses included. Return 0. */
KEP_API int32_t ZuFault_ShowInitLogToBuf(ZuFault *fault, ZuBuf *buffer);
KEP_API int32_t ZuFault_ShowRunLogToBuf(ZuFault *fault, ZuBuf *buffer);
KEP_API int32_t ZuFault_ShowInitLog(ZuFault *fault);
KEP_API int32_t ZuFault_ShowRunLog(ZuFault *fault);

/* Runs every fault's callback, writes the file and drops the values in it; logs are kept. Does nothing before the first
 * registration, or while a run is under way, here or on another thread. Values recorded after the callbacks are the
 * next run's. When the file cannot be opened the values are kept, and no later call does anything before
 * ZuFault_SetFile is called. Nothing follows a write that failed, and its values are dropped all the same.
 *
 * The file is replaced or made with the mode 0666 less the umask; of a symbolic link, what it leads to. A device or a
 * FIFO is written to, and waited for while it takes nothing; a FIFO without a reader cannot be opened. SIGXFSZ (the
 * limit of a file's size) and SIGPIPE of these writes do not reach the host.
 *
 * All this holds as long as ZuFault_SetFile does not ask for a safe file. */
KEP_API void ZuFault_Start(void);

/* Names the file, from the next run on: a path of at most 255 bytes, which is copied, or NULL for the build's. Non-zero
 * `safe`: under that name there is always a whole file, the old one or the new one, whenever the process or the board
 * stops. It is written under the path and ".new", synced, and renamed, and then its folder is synced; what was left
 * under that name is replaced unopened. A run that fails anywhere on this way keeps its values, in order, for the next,
 * which begins as usual. One that fails before the renaming leaves the old file and takes the ".new" away; one that
 * cannot sync the folder leaves the new file, whose values come again in the next. A file system that does not know how
 * to sync a folder (EINVAL) is taken at its word.
 *
 * A safe file needs a folder that the process may read and write, and room for both files. Each is a new one, of the
 * process's owner and with the mode 0666 less the umask. A symbolic link, a FIFO or a device at the path is not written
 * to but replaced by the file; a folder makes the run fail.
 *
 * Returns 1, or 0 and changes nothing for an empty path or a longer one. */
KEP_API int32_t ZuFault_SetFile(const char *path, int32_t safe);

/* Returns how the last run ended, also while another is under way: 1 when the file was written whole, 0 when none has
 * ended yet, otherwise the negative errno of its first failure. With Kep_SetLock records are copied first, and want of
 * memory for that is a failure, too (ENOMEM): what was not written stays for the next run. A file that is not safe may
 * be whole here and yet not survive a power cut. */
KEP_API int32_t ZuFault_GetResult(void);

/* Sets how many bytes each of the fault's two logs may take, as ZuLogger_SetInfoSize does: until that log keeps its
 * first line. 0: 1 MiB, the default. */
KEP_API void ZuFault_SetLogSize(ZuFault *fault, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
