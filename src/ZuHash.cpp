// ZuHash.cpp: buckets of entry lists.
//
//   entry   key (keySize) | value (valueSize)
#include "kep/ZuHash.h"

#include <cstring>

#include "ZuList.hpp"
#include "ZuMem.hpp"
#include "kep/ZuBuffer.h"
#include "kep/ZuMD5.h"
#include "kep/ZuPrint.h"
#include "kep/ZuString.h"
#include "kep/platform.h"

struct ZuHash {
  ZuList **buckets;  // NULL until the first key lands there
  uint32_t bucketCount;
  ZuHashFunc hashFunc;
  int32_t keySize;
  int32_t valueSize;
  int32_t isStatic;
};
static_assert(sizeof(void *) != 4 || sizeof(ZuHash) == 24, "the board's record");

namespace {

struct KeyProbe {
  int32_t keySize;
  const void *key;
};

struct FinderProbe {
  const ZuHash *table;
  ZuHashFinder finder;
  void *arg;
};

size_t keyBytes(const ZuHash *table) { return static_cast<size_t>(table->keySize); }

size_t valueBytes(const ZuHash *table) { return static_cast<size_t>(table->valueSize); }

uint8_t *valueOf(const ZuHash *table, void *entry) { return static_cast<uint8_t *>(entry) + keyBytes(table); }

// Where the list of a key's bucket is kept; NULL without a table, a key or any bucket.
inline ZuList **bucketOf(const ZuHash *table, const void *key) {
  if (!table || !key || table->bucketCount == 0) return nullptr;
  const uint32_t hash = table->hashFunc(key, static_cast<uint32_t>(table->keySize), table->bucketCount);
  // ZuMD5_Hash has divided already, and a division takes longer than all that follows.
  return &table->buckets[hash < table->bucketCount ? hash : hash % table->bucketCount];
}

// By words first, which for the sizes that keys have takes less than a call.
inline bool areEqual(const void *a, const void *b, size_t size) {
  const auto *left = static_cast<const uint8_t *>(a), *right = static_cast<const uint8_t *>(b);
  for (; size >= sizeof(uint64_t); size -= sizeof(uint64_t)) {
    uint64_t leftWord, rightWord;
    std::memcpy(&leftWord, left, sizeof leftWord);
    std::memcpy(&rightWord, right, sizeof rightWord);
    if (leftWord != rightWord) return false;
    left += sizeof leftWord;
    right += sizeof rightWord;
  }
  return size == 0 || std::memcmp(left, right, size) == 0;
}

// What ZuList_Find gives with ZuHash_Cmp, without a call for every entry.
inline uint8_t *findEntry(const ZuHash *table, const ZuList *bucket, const void *key) {
  if (!bucket) return nullptr;
  const ZuListNode *node = bucket->head;
  for (int32_t remaining = bucket->count; remaining > 0; --remaining, node = node->next) {
    if (areEqual(node->data, key, keyBytes(table))) return static_cast<uint8_t *>(node->data);
  }
  return nullptr;
}

void putValue(const ZuHash *table, void *entry, const void *value) {
  if (!value) return;  // of no bytes
  if (table->valueSize == sizeof(uint64_t)) {
    std::memcpy(valueOf(table, entry), value, sizeof(uint64_t));  // a number or a pointer: no call
  } else {
    std::memcpy(valueOf(table, entry), value, valueBytes(table));
  }
}

void *makeEntry(const ZuHash *table, const void *key, const void *value) {
  const uint32_t size = static_cast<uint32_t>(table->keySize) + static_cast<uint32_t>(table->valueSize);
  void *entry = table->isStatic ? takeLocalStatic(size) : takeLocal(size);
  if (!entry) return nullptr;
  std::memcpy(entry, key, keyBytes(table));
  putValue(table, entry, value);
  return entry;
}

void showBytes(const char *title, const void *bytes, int32_t size) {
  char format[100];
  PLM_snprintf(format, sizeof format, "*%dS", static_cast<int>(size));
  ZuPrint_Show(title, 0);
  ZuBuffer_UNPack(format, bytes);
}

}  // namespace

ZuHash *ZuHash_NewEx(int32_t keySize, int32_t valueSize, uint32_t bucketCount, ZuHashFunc hashFunc, int32_t isStatic) {
  const uint64_t arraySize = uint64_t{bucketCount} * sizeof(ZuList *);
  if (keySize < 0 || valueSize < 0 || arraySize > UINT32_MAX) return nullptr;
  auto *table = static_cast<ZuHash *>(takeLocal(sizeof(ZuHash)));
  if (!table) return nullptr;
  *table = {nullptr, bucketCount, hashFunc ? hashFunc : ZuMD5_Hash, keySize, valueSize, isStatic};
  table->buckets = static_cast<ZuList **>(takeLocal(static_cast<uint32_t>(arraySize)));
  if (!table->buckets) {
    giveLocal(table);
    return nullptr;
  }
  std::memset(table->buckets, 0, static_cast<size_t>(arraySize));
  return table;
}

ZuHash *ZuHash_New(int32_t keySize, int32_t valueSize, uint32_t bucketCount, ZuHashFunc hashFunc) {
  return ZuHash_NewEx(keySize, valueSize, bucketCount, hashFunc, 0);
}

int32_t ZuHash_Set(ZuHash *table, const void *key, const void *value) {
  ZuList **bucket = bucketOf(table, key);
  if (!bucket || (!value && table->valueSize > 0)) return 0;
  if (void *entry = findEntry(table, *bucket, key)) {
    putValue(table, entry, value);
    return 1;
  }
  if (!*bucket) *bucket = ZuList_New(0, table->isStatic ? nullptr : giveLocal);
  if (!*bucket) return 0;
  void *entry = makeEntry(table, key, value);
  return entry ? ZuList_Push(*bucket, entry) : 0;
}

int32_t ZuHash_Get(ZuHash *table, const void *key, void **out) {
  if (!table) return 0;
  ZuList **bucket = bucketOf(table, key);
  void *entry = bucket ? findEntry(table, *bucket, key) : nullptr;
  if (out) *out = entry ? valueOf(table, entry) : nullptr;
  return entry != nullptr;
}

void ZuHash_Delete(ZuHash *table, const void *key) {
  ZuList **bucket = bucketOf(table, key);
  if (!bucket) return;
  const KeyProbe probe = {table->keySize, key};
  const int32_t position = ZuList_FindPos(*bucket, ZuHash_Cmp, &probe);
  if (position >= 0) ZuList_Remove(*bucket, position);  // unlinked only: hosts may still hold its value's address
}

void *ZuHash_Find(ZuHash *table, ZuHashFinder finder, void *arg) {
  if (!table || !finder) return nullptr;
  const FinderProbe probe = {table, finder, arg};
  for (uint32_t i = 0; i < table->bucketCount; ++i) {
    if (void *entry = ZuList_Find(table->buckets[i], ZuHash_PreFind, &probe)) return entry;
  }
  return nullptr;
}

void ZuHash_Show(ZuHash *table) {
  if (!table) return;
  for (uint32_t i = 0; i < table->bucketCount; ++i) ZuList_Find(table->buckets[i], ZuHash_ShowNode, table);
}

void ZuHash_ShowDepth(ZuHash *table) {
  if (!table) return;
  for (uint32_t i = 0; i < table->bucketCount; ++i) {
    if (!table->buckets[i]) continue;
    ZuPrint_Show(
        ZuString_SFormat("pos=%d,length=%d\n", static_cast<int>(i), static_cast<int>(ZuList_Length(table->buckets[i]))),
        0);
  }
}

void ZuHash_Release(ZuHash *table) {
  if (!table || table->isStatic) return;
  for (uint32_t i = 0; i < table->bucketCount; ++i) ZuList_Release(table->buckets[i]);
  giveLocal(table->buckets);
  giveLocal(table);
}

int32_t ZuHash_Cmp(void *entry, const void *probe) {
  const auto *wanted = static_cast<const KeyProbe *>(probe);
  if (!entry || !wanted || !wanted->key) return -1;
  return std::memcmp(entry, wanted->key, static_cast<size_t>(wanted->keySize));
}

int32_t ZuHash_PreFind(void *entry, const void *probe) {
  const auto *search = static_cast<const FinderProbe *>(probe);
  if (!entry || !search) return -1;
  return search->finder(entry, valueOf(search->table, entry), search->arg);
}

// Its 0 ends the list's walk at the first entry, so that a bucket shows its newest only.
int32_t ZuHash_ShowNode(void *entry, const void *table) {
  const auto *hash = static_cast<const ZuHash *>(table);
  if (!entry || !hash) return 0;
  showBytes("key=>\n", entry, hash->keySize);
  showBytes("result=>\n", valueOf(hash, entry), hash->valueSize);
  ZuPrint_Show("-----------------------------------------\n", 0);
  return 0;
}
