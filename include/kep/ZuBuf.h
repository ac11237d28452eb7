/* ZuBuf.h: a growable, zero-filled array of fixed-size elements; with 1-byte elements the text buffer that the
 * ...ShowToBuf functions fill. Nothing here adds a terminator.
 *
 * A block is grown when the elements in use and the write would exceed its room, to a multiple of the grow step in
 * bytes. Growing keeps only the elements in use: what ZuBuf_Set wrote beyond them is lost. After the first growth the
 * room is counted in bytes though compared with elements; elements wider than a byte therefore grow when their block is
 * really full. Every function accepts a NULL buffer. The source of a write must not lie in the buffer's own block,
 * which growing frees. A buffer belongs to one thread at a time; with a lock (Kep_SetLock) the memory under it is
 * accounted for safely. */
#ifndef KEP_ZUBUF_H
#define KEP_ZUBUF_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZuBuf ZuBuf; /* a buffer, known by its address only */

/* Creates an empty buffer with room for `count` elements of `elemSize` bytes. `growStep` is in bytes; 0 takes `count`,
 * and should that be 0 too, a block grows to exactly what is needed. Returns NULL when memory is short or the size
 * exceeds 32 bits. */
KEP_API ZuBuf *ZuBuf_New(uint32_t elemSize, uint32_t count, uint32_t growStep);

/* Frees the block and the buffer; NULL is ignored. */
KEP_API void ZuBuf_Release(ZuBuf *buf);

/* Appends `n` elements from `src`; 0 takes the length of the text `src` (for 1-byte elements). Returns 1, or 0 (NULL,
 * memory short, more than 32 bits of bytes) with the buffer unchanged. */
KEP_API int32_t ZuBuf_Append(ZuBuf *buf, const void *src, uint32_t n);

/* Points `*out` at element `index`, valid until the next call that may grow or free the block, and returns the elements
 * from there to the end plus one: at least 2. An index outside gives 0 and a NULL pointer; a NULL buffer gives 0 and
 * leaves `*out` alone. */
KEP_API uint32_t ZuBuf_Get(ZuBuf *buf, uint32_t index, void **out);

/* Writes `n` elements at `index`, growing the block where needed, without changing the length. Returns 1, or 0 as
 * ZuBuf_Append does. */
KEP_API int32_t ZuBuf_Set(ZuBuf *buf, uint32_t index, const void *src, uint32_t n);

/* Returns the number of elements in use, 0 for NULL. */
KEP_API uint32_t ZuBuf_Length(const ZuBuf *buf);

/* Zeroes the elements in use and sets the length to 0; the block stays. NULL is ignored. */
KEP_API void ZuBuf_Clear(ZuBuf *buf);

#ifdef __cplusplus
}
#endif

#endif
