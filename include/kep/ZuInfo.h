/* ZuInfo.h: key/value records in one block that grows to a limit and is then used as a ring, the oldest giving way.
 *
 * A record takes key length + value length + 3 bytes: the key length (1 byte), the key, the value length (2 bytes, big
 * endian), the value. A key has at most 254 bytes, a value at most 65535. Every function accepts a NULL store.
 * Lengths and limits are in bytes; negative lengths and NULL texts with a length are refused with the failure value.
 *
 * When memory for a larger block is short, the records are lost and the store stays without a block, refusing writes,
 * until ZuInfo_ReSize finds a new one. A block has 0x7FFFFC00 bytes at most; one that has them is at its limit, though
 * the store has a higher one or none.
 *
 * With Kep_SetLock any thread may call these at any time, but nobody else may use a store that is being released.
 * Pointers from ZuInfo_Get and ZuInfo_GetPack hold until the next write to that store by anyone, and so does what a
 * cursor says: to walk a store that others write to, the host holds its lock. So it does from ZuInfo_PackPre until the
 * value is packed, and to read the fields. ZuInfo_ShowInfo prints, without the lock unless the host holds it around the
 * call: it shows the records that were there when it began, each whole, and ends early where the next one has been
 * dropped meanwhile or memory for a copy of it is short. Without a lock a store belongs to one thread at a time.
 *
 * A library built with the store's trace (KEP_STORE_TRACE, OFF by default) prints every step of making room to standard
 * output, and when the block grows its state before and after. That aid prints with the lock held, which nothing else
 * does. */
#ifndef KEP_ZUINFO_H
#define KEP_ZUINFO_H

#include <stdint.h>

#include "kep/ZuMem.h"
#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The store. A host reads it freely and changes it only after ZuInfo_PackPre. */
typedef struct ZuInfo {
  ZuMem *block;            /* the records; NULL when there is no memory for them */
  uint32_t limit;          /* largest block size, a multiple of 1024; 0: none */
  uint32_t writeOffset;    /* where the next record goes */
  uint32_t readOffset;     /* where the oldest record begins */
  int32_t freeSize;        /* bytes that can be written without evicting or growing */
  int32_t ignore;          /* non-zero: writes are refused quietly */
  uint8_t idSwitches[250]; /* bit id % 8 of byte id / 8: keep the third string of structured records of this id */
} ZuInfo;

/* Creates an empty store of 1024 bytes that may grow to `limit`, rounded up to a multiple of 1024 (0: no limit; a limit
 * that would round past 32 bits is 0xFFFFFC00). All id switches are off. Returns the store, given back with
 * ZuInfo_Release, or NULL when memory is short. */
KEP_API ZuInfo *ZuInfo_New(uint32_t limit);

/* Frees the store and its records. */
KEP_API void ZuInfo_Release(ZuInfo *info);

/* Non-zero: writes are refused quietly from now on; reads go on. */
KEP_API void ZuInfo_Ignore(ZuInfo *info, int32_t on);

/* Drops all records; block size, limit and switches stay. */
KEP_API void ZuInfo_Clear(ZuInfo *info);

/* Sets a new limit, rounded as above. The same limit changes nothing; another drops all records, and replaces the block
 * by one of 1024 bytes when it is as large as the new limit or larger. Returns 1; 0 when memory for the new block is
 * short, which leaves the store without a block and with its old limit. */
KEP_API int32_t ZuInfo_ReSize(ZuInfo *info, uint32_t limit);

/* Takes one step towards `need` free bytes: evicts the oldest record of a block at its limit, or grows the block.
 * Returns 1 when there is room now, 2 when progress was made and the call must be repeated, 0 when it cannot be. */
KEP_API int32_t ZuInfo_FreeSize_(ZuInfo *info, int32_t need);

/* Appends one record, copying key and value. keyLen is taken modulo 256 and valueLen modulo 65536. Returns the bytes
 * taken; 0 when the store ignores writes; -1 when the record cannot be kept: no block, a key of 255 bytes, larger than
 * the limit (the store stays as it was), or memory short. */
KEP_API int32_t ZuInfo_Append(ZuInfo *info, const void *key, int32_t keyLen, const void *value, int32_t valueLen);

/* ZuInfo_Append of two texts without their terminators. */
KEP_API int32_t ZuInfo_Write(ZuInfo *info, const char *key, const char *text);

/* Appends one record whose value is value1 followed by value2. Returns 1, also when the store ignores writes; 0 when
 * the record cannot be kept, among others for a key above 254 or a value above 65535 bytes. */
KEP_API int32_t ZuInfo_Append2Message(ZuInfo *info, const void *key, int32_t keyLen, const void *value1, int32_t len1,
                                      const void *value2, int32_t len2);

/* Writes the head of a record whose value the caller then packs itself: exactly valueLen bytes at writeOffset, after
 * which it adds valueLen to writeOffset and takes it from freeSize. keyLen 0 takes the key's text length. Returns 1; 0
 * when the store ignores writes or the record cannot be kept, as above. */
KEP_API int32_t ZuInfo_PackPre(ZuInfo *info, const void *key, int32_t keyLen, int32_t valueLen);

/* Appends a structured record: its key is the pack format "TBhI%dS%dS%dS", its value the time, `type` (8 bits), `id`
 * (16 bits), `code` and three byte strings. The third is kept only when the id's switch is on. A record that cannot be
 * kept is dropped. */
KEP_API void ZuInfo_AddInfo(ZuInfo *info, int32_t type, int32_t id, const void *data1, int32_t len1, const void *data2,
                            int32_t len2, const void *data3, int32_t len3, uint32_t code);

/* Hands out the next record, oldest first. The caller sets `*cursor` to -1 before the first call and leaves it alone
 * between calls. The pointers lead into the block and hold until the next write by anyone; any out-pointer may be NULL.
 * With a key (keyLen 0: its text length) only records whose first keyLen - 1 key bytes equal it are taken, so a
 * one-byte key takes every record. Returns 1, or 0 when there is no further record. */
KEP_API int32_t ZuInfo_Get(ZuInfo *info, const void *key, int32_t keyLen, int32_t *cursor, const uint8_t **keyOut,
                           uint8_t *keyLenOut, const uint8_t **valueOut, uint16_t *valueLenOut);

/* The next record of any key, its key as a dump format: formatOut, of 256 bytes, receives '*', the key and a
 * terminator. Returns 1, or 0 when there is no further record. */
KEP_API int32_t ZuInfo_GetPack(ZuInfo *info, int32_t *cursor, char *formatOut, const uint8_t **valueOut);

/* Returns the switch of `id`: 0 or 1, and 1 for an id that is negative or above 1999. A NULL store gives 0. */
KEP_API int32_t ZuInfo_GetFlag(ZuInfo *info, int32_t id);

/* Sets switches: mode 1 the id's on, 2 all on, 3 all off, any other the id's off. Needs a valid id in every mode. */
KEP_API void ZuInfo_SetFlag(ZuInfo *info, int32_t id, int32_t mode);

/* Prints the structured records that pass a filter, and their number. They pass by `id` (-1: any), by the bytes that
 * data1 and data2 begin with (texts of hex digit pairs; empty or NULL: any; bytes beyond a string's end count as 0), by
 * `code` (0: any, -1: any but 0) and `type` (0: any). The counter starts at 1; a record is printed when the counter is
 * above `skip` and not above `limit` (0: no limit). Other records than structured ones are passed over. */
KEP_API void ZuInfo_ShowInfo(ZuInfo *info, int32_t id, const char *hex1, const char *hex2, int32_t code, int32_t type,
                             int32_t skip, int32_t limit);

/* Returns how many records have been wiped to make room for newer ones since the store was created; it wraps. A NULL
 * store gives 0. */
KEP_API uint32_t ZuInfo_GetEvicted(const ZuInfo *info);

#ifdef __cplusplus
}
#endif

#endif
