/* ZuMem.h: tracked memory. Every block is counted under a module id, so that a host can see who holds what.
 *
 * An id is any integer; its low 8 bits choose one of 256 counters. Id 0 is the toolkit's own, 100 the collection
 * side's. A block carries a 4-byte header that is counted with it. Memory is never cleared here.
 *
 * With a lock (Kep_SetLock) any thread may take, give back and show memory; ZuMem_Show prints, and a row is of one
 * moment. A bounded object is its owner's: one thread at a time, and the memory under it is accounted for safely. */
#ifndef KEP_ZUMEM_H
#define KEP_ZUMEM_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A bounded memory object: a fixed number of data bytes whose accessors never leave it. */
typedef struct ZuMem ZuMem;

/* Returns a block of `size` bytes, given back with ZuMem_Free under the same id, or NULL when memory is short or
 * `size` is so large that the header does not fit beside it. */
KEP_API void *ZuMem_Malloc(int32_t id, uint32_t size);

/* Gives back a block from ZuMem_Malloc. The id is trusted: another one moves the byte count between ids. NULL does
 * nothing. Never pass a block of the static pool. */
KEP_API void ZuMem_Free(int32_t id, void *ptr);

/* Returns `size` bytes, rounded up to a multiple of 4, that are never given back: up to 512 KiB carved from a pool that
 * grows by chunks of 1 MiB (4-byte alignment), above that, or when there is no memory for a chunk, a counted block of
 * its own. NULL when `size` is 0 or wraps when rounded, or when memory is short. */
KEP_API void *ZuMem_Malloc_Static(int32_t id, uint32_t size);

/* The three above under id 0. */
KEP_API void *ZuMem_LocalMalloc(uint32_t size);
KEP_API void *ZuMem_LocalMalloc_Static(uint32_t size);
KEP_API void ZuMem_LocalFree(void *ptr);

/* Prints the table of bytes, allocations and releases of every id that holds memory, and the pool's state. */
KEP_API void ZuMem_Show(void);

/* Creates an object of `capacity` data bytes, uncleared; with a non-zero `static_flag` it comes from the static pool
 * and can be neither released nor resized. Returns NULL when memory is short or `capacity` is negative. */
KEP_API ZuMem *ZuMem_New(int32_t capacity, int32_t static_flag);

/* Frees a heap object; leaves a static one and NULL alone. */
KEP_API void ZuMem_Release(ZuMem *obj);

/* Moves the data into a new object of `new_capacity` bytes, as much of it as fits, and frees the old one. Returns the
 * new object; a static object unchanged; or NULL (NULL object, negative capacity, memory short) with the old object
 * still valid. */
KEP_API ZuMem *ZuMem_realloc(ZuMem *obj, int32_t new_capacity);

/* Returns the address of data byte `offset`, valid until the object is resized or released, or NULL when `obj` is NULL
 * or the offset lies outside. */
KEP_API void *ZuMem_Get(ZuMem *obj, uint32_t offset);

/* Copies up to `n` bytes into the object (memcpy) or out of it (memget), cut at the object's end. Returns the bytes
 * copied, 0 for a NULL pointer or an offset outside. */
KEP_API uint32_t ZuMem_memcpy(ZuMem *obj, uint32_t offset, const void *src, uint32_t n);
KEP_API uint32_t ZuMem_memget(ZuMem *obj, uint32_t offset, void *dst, uint32_t n);

/* Sets up to `n` bytes to `value`, cut at the object's end. */
KEP_API void ZuMem_memset(ZuMem *obj, uint32_t offset, int32_t value, uint32_t n);

/* Compares `n` bytes at `offset` with `buf`, as memcmp does. Unlike the accessors above `n` is not cut: the caller
 * keeps it within the object. Returns -1 for a NULL pointer or an offset outside. */
KEP_API int32_t ZuMem_memcmp(ZuMem *obj, uint32_t offset, const void *buf, uint32_t n);

#ifdef __cplusplus
}
#endif

#endif
