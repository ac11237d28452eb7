/* ZuBuffer.h: the codec by which records and wire messages are laid out, read back and dumped.
 *
 * A format is a text of field letters, read from left to right:
 *
 *   B b    1 byte             ZuBuffer_Pack takes an int            ZuBuffer_UNPack a uint8_t *
 *   H h    2 bytes            an int                                a uint16_t *
 *   I i    4 bytes            a 32-bit integer                      a uint32_t *
 *   T      4 bytes, seconds   a 32-bit integer                      a uint32_t *
 *   s S    count bytes        a pointer to count bytes              a pointer to count + 1 bytes
 *
 * A count is the decimal number directly in front of s or S (0 without one); in front of another letter it is ignored.
 * Fields lie end to end, integers most significant byte first on every host, without padding, lengths or terminators.
 * Other characters are ignored. Case matters only to a dump: upper case shows hexadecimal, lower case a number or text.
 * T holds the low 32 bits of a time, which a dump reads with a sign: what is recorded from 19 January 2038, 03:14:08
 * UTC on shows as 136 years earlier, until 2106; who reads the number itself may take it without a sign, if no record
 * of his is older than 1970. Counts, and the size that ZuBuffer_GetPackSize gives, saturate at 2^31 - 1.
 *
 * The codec works on the caller's own memory, from any thread; a dump prints, and without a lock (Kep_SetLock) belongs
 * to one thread at a time. */
#ifndef KEP_ZUBUFFER_H
#define KEP_ZUBUFFER_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Packs the arguments into `buffer`, which has room for ZuBuffer_GetPackSize bytes. A NULL string packs as zeros.
 * Returns the bytes written, 0 for a NULL buffer or format. */
KEP_API int32_t ZuBuffer_Pack(void *buffer, const char *format, ...);

/* Unpacks `buffer` into the pointed variables; a string gets a terminator after its count bytes; a NULL destination
 * skips its field. A format that begins with '*' takes no arguments and prints every field through the print sink
 * instead: an s of any count up to its first NUL, an S whole, a T of 0 as the current time. Returns the number of
 * fields, 0 for a NULL buffer or format. */
KEP_API int32_t ZuBuffer_UNPack(const char *format, const void *buffer, ...);

/* Returns the bytes that `format` describes and stores the number of its fields in `*fieldCount` unless that is NULL.
 * A NULL format describes nothing. */
KEP_API int32_t ZuBuffer_GetPackSize(const char *format, int32_t *fieldCount);

#ifdef __cplusplus
}
#endif

#endif
