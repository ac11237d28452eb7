/* ZuFuncLog.h: a trace of calls to the functions of a table that the host supplies.
 *
 * The host writes the records into the log's store itself: the key is one byte, the function's index in the table; the
 * value is ZuTime_Now() packed as T, and the call's data packed with the entry's format. For example with
 * ZuInfo_PackPre and ZuBuffer_Pack. Every function accepts a NULL log.
 *
 * With Kep_SetLock any thread may call these at any time, but nobody else may use a log that is being released. A
 * writer that uses ZuInfo_PackPre holds the host's lock until it has packed the value; one that uses
 * ZuInfo_Append2Message, the time and the packed data being its two values, needs not. ZuFuncLog_Show and
 * ZuFuncLog_ShowFunc print, without the lock unless the host holds it around them: the former shows the records that
 * were there when it began, each whole, and ends early where the next one has been dropped meanwhile or memory for a
 * copy of it is short. The table is read without the lock. Without a lock a log belongs to one thread at a time, and
 * its writer must not write while one of these functions walks the store. */
#ifndef KEP_ZUFUNCLOG_H
#define KEP_ZUFUNCLOG_H

#include <stdint.h>

#include "kep/ZuInfo.h"
#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A function of the table. */
typedef struct ZuFuncLogEntry {
  const char *name;   /* by which it is shown */
  const char *format; /* pack format of a call's data, without the time */
  int32_t count;      /* the host's count of calls */
  const char *text;   /* shown after the name */
} ZuFuncLogEntry;

/* A log. */
typedef struct ZuFuncLog {
  ZuFuncLogEntry *table; /* the host's */
  int32_t count;         /* entries of the table */
  ZuInfo *store;         /* of the records */
  int32_t ignore;        /* for the host's writer */
} ZuFuncLog;

/* Creates a log over a table, which stays the host's and must outlive it, with a store that may grow to `limit` bytes.
 * Returns NULL when memory is short. */
KEP_API ZuFuncLog *ZuFuncLog_New(ZuFuncLogEntry *table, int32_t count, uint32_t limit);

/* Frees the log. The block of its store's records stays allocated: hosts may hold addresses in it. */
KEP_API void ZuFuncLog_Release(ZuFuncLog *log);

/* Sets the ignore field, which the host's writer honours. */
KEP_API void ZuFuncLog_Ignore(ZuFuncLog *log, int32_t on);

/* Hands out the next call record, oldest first, whatever the id; `*cursor` is -1 before the first call. The value
 * points into the store, until the next write to it by anyone. Any out-pointer may be NULL. Returns 1; 0 at the end,
 * for an id not below the table's count, and for a record without a key, whose length is stored all the same. */
KEP_API int32_t ZuFuncLog_Get(ZuFuncLog *log, int32_t id, int32_t *cursor, int32_t *idOut, const uint8_t **valueOut,
                              int32_t *valueLengthOut);

/* Prints the call records number skip to skip + limit - 1, counted from 0 (a limit of 0 prints none), up to the first
 * whose function is not in the table. A name that the table has shows the records of all functions, one that it has not
 * shows none; NULL or "" is no name. A record whose value is shorter than its function's format says, or for whose dump
 * memory is short, shows its first line only. */
KEP_API void ZuFuncLog_Show(ZuFuncLog *log, const char *name, int32_t skip, int32_t limit);

/* Prints the table. Further arguments are ignored. */
KEP_API void ZuFuncLog_ShowFunc(ZuFuncLog *log, ...);

#ifdef __cplusplus
}
#endif

#endif
