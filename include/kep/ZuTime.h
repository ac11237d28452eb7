/* ZuTime.h: clocks, a sleep, and the one formatter of dates, which remembers its last time and zone: without a lock
 * (Kep_SetLock) it belongs to one thread at a time, the others to any. TZ is read as it is in the environment, which no
 * thread may change meanwhile.
 *
 * Times are seconds since the epoch in 64 bits on every host, whatever its time_t: dates after 2038 are right where
 * the C library knows them. Records keep the low 32 bits, which dumps read with a sign (ZuBuffer.h). */
#ifndef KEP_ZUTIME_H
#define KEP_ZUTIME_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Blocks the calling thread; a signal does not end it early. */
KEP_API void ZuTime_Sleep(uint32_t milliseconds);

/* Microseconds of the wall clock modulo 2^32, so it wraps every 71.6 minutes: compare values by difference. */
KEP_API uint32_t ZuTime_GetUTime(void);

/* Wall-clock seconds since the epoch, moved by `offset` seconds. */
KEP_API int64_t ZuTime_GetTime(int32_t offset);

/* Wall-clock seconds since the epoch. */
KEP_API int64_t ZuTime_Now(void);

/* Writes the local time `t` (0: now) into `dst` by `pattern` and returns `dst`, which the caller makes large enough:
 * 12 bytes for a year, 3 for each other token, 1 for each other character, and the terminator.
 *
 *   YYYY       year, 4 digits            YY yy   year modulo 100
 *   MM mm      month                     DD dd   day of the month
 *   HH hh      hour, 0 to 23             MI mi   minute              SS ss   second
 *
 * Upper case pads with zeros to two digits, lower case does not pad, everything else is copied. A time that the C
 * library cannot convert prints as the year 1900, month 1, day 0, 0:0:0. A change of TZ shows in the next call, one of
 * the zone's file within a second of the wall clock; so does TZ unset again after the host had the C library go
 * elsewhere. NULL for `dst` or `pattern` writes nothing. */
KEP_API char *ZuTime_Format(char *dst, const char *pattern, int64_t t);

#ifdef __cplusplus
}
#endif

#endif
