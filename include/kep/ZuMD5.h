/* ZuMD5.h: a fast hash of short keys, for spreading them over buckets.
 *
 * It borrows the compression function of MD5 (RFC 1321), shortened to ten steps a round over at most 40 bytes, with a
 * word order of its own and without padding: it is no digest of the data and protects nothing. Words are read big
 * endian, so that a key hashes alike on every host. Whole words are read: up to 3 bytes beyond a key whose length is
 * not a multiple of 4 take part. The caller keeps them readable and, for keys that shall hash alike, equal. */
#ifndef KEP_ZUMD5_H
#define KEP_ZUMD5_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The state of a hash. */
typedef struct ZuMD5 {
  uint32_t count[2]; /* not used */
  uint32_t state[4]; /* A, B, C, D */
} ZuMD5;

/* Sets the initial state. NULL is ignored. */
KEP_API void ZuMD5_Init(ZuMD5 *ctx);

/* Works the first 40 of `len` bytes into the four words at `state`. NULL data or state changes nothing. */
KEP_API void ZuMD5_Encode(uint32_t *state, const void *data, uint32_t len);

/* Returns the hash of `len` bytes, below `modulus`; 0 for NULL data or a modulus of 0. */
KEP_API uint32_t ZuMD5_Hash(const void *data, uint32_t len, uint32_t modulus);

#ifdef __cplusplus
}
#endif

#endif
