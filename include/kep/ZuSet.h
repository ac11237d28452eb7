/* ZuSet.h: a bit set over the indices 0 to capacity - 1. Every function accepts a NULL set.
 * A set belongs to one thread at a time; with a lock (Kep_SetLock) the memory under it is accounted for safely. */
#ifndef KEP_ZUSET_H
#define KEP_ZUSET_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZuSet ZuSet; /* a set, known by its address only */

/* Creates an empty set. Returns NULL when `capacity` is 0 or memory is short, or when the capacity is so large (above
 * 2^32 - 8) that its bytes cannot be counted. */
KEP_API ZuSet *ZuSet_New(uint32_t capacity);

/* Frees the set. */
KEP_API void ZuSet_Release(ZuSet *set);

/* Returns 1 when `index` is a member, else 0; so also for an index outside. */
KEP_API int32_t ZuSet_Get(const ZuSet *set, uint32_t index);

/* Makes `index` a member (flag non-zero) or not. Returns 1 when that changed anything; 0 otherwise, and for an index
 * outside. */
KEP_API int32_t ZuSet_Set(ZuSet *set, uint32_t index, int32_t flag);

#ifdef __cplusplus
}
#endif

#endif
