/* ZuHash.h: a table of fixed-size keys and values, both copied into it.
 *
 * A bucket is a list, made with its first key, the newest entry in front. A dynamic table's storage comes from the
 * heap. A static table's comes from the static pool: nothing is ever deleted from it, and it is never released. Every
 * function accepts a NULL table; a NULL key is never found. A table belongs to one thread at a time; with a lock
 * (Kep_SetLock) the memory under it is accounted for safely. */
#ifndef KEP_ZUHASH_H
#define KEP_ZUHASH_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZuHash ZuHash; /* a table, known by its address only */

/* Returns a number for a key; the table takes it modulo the bucket count. */
typedef uint32_t (*ZuHashFunc)(const void *key, uint32_t keySize, uint32_t bucketCount);
/* Returns 0 to accept an entry. */
typedef int32_t (*ZuHashFinder)(const void *key, void *value, void *arg);

/* Creates a table; sizes are in bytes, a NULL hashFunc takes ZuMD5_Hash, whose rule on the bytes beyond a key then
 * holds for every key passed. A table of 0 buckets stores and finds nothing. Returns NULL for a negative size, sizes
 * that exceed 32 bits, or when memory is short. */
KEP_API ZuHash *ZuHash_NewEx(int32_t keySize, int32_t valueSize, uint32_t bucketCount, ZuHashFunc hashFunc,
                             int32_t isStatic);

/* Creates a dynamic table. */
KEP_API ZuHash *ZuHash_New(int32_t keySize, int32_t valueSize, uint32_t bucketCount, ZuHashFunc hashFunc);

/* Stores a value under a key, over the value that is there. Returns 1; 0 when memory is short, for a NULL
 * key, a NULL value of more than 0 bytes, and in a table of 0 buckets. */
KEP_API int32_t ZuHash_Set(ZuHash *table, const void *key, const void *value);

/* Points `*out` at the value in the table, where it stays until deleted or released, and returns 1. It lies keySize
 * bytes behind an entry's start, which in a static table is 4-byte aligned: a value that wants more is copied out.
 * Returns 0 and a NULL pointer when there is none; a NULL table leaves `*out` alone. */
KEP_API int32_t ZuHash_Get(ZuHash *table, const void *key, void **out);

/* Removes a key from a dynamic table; its storage is not given back. */
KEP_API void ZuHash_Delete(ZuHash *table, const void *key);

/* Offers entries to `finder`, buckets in order and newest first, until one is accepted. Returns that one's key, with
 * the value keySize bytes after it, or NULL. */
KEP_API void *ZuHash_Find(ZuHash *table, ZuHashFinder finder, void *arg);

/* Prints the newest entry of every bucket. */
KEP_API void ZuHash_Show(ZuHash *table);

/* Prints the number of entries of every bucket that was ever used. */
KEP_API void ZuHash_ShowDepth(ZuHash *table);

/* Frees a dynamic table with its entries. */
KEP_API void ZuHash_Release(ZuHash *table);

/* The callbacks that the table hands to its lists; their probes are the table's own. */
KEP_API int32_t ZuHash_Cmp(void *entry, const void *probe);
KEP_API int32_t ZuHash_PreFind(void *entry, const void *probe);
KEP_API int32_t ZuHash_ShowNode(void *entry, const void *table);

#ifdef __cplusplus
}
#endif

#endif
