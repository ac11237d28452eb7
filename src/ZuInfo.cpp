// ZuInfo.cpp: a ring of records in one block.
//
//   record   key length (1) | key (K) | value length (2, big endian) | value (V)
//   block    newer records | 0xFF .. | older records | 0xFF tail
//                          ^ write   ^ read
//
// A record never runs over the end of the block. Every byte outside a record is 0xFF and a key is shorter than 255
// bytes, so 0xFF where a record should start means: nothing more here, go on at offset 0. The read offset itself may
// rest on such a byte, when the last record before the unused tail has been evicted.
//
// The write offset and the free size are open to the host between ZuInfo_PackPre and the end of its packing; nothing
// here trusts them further than the block reaches.
#include "ZuInfo.hpp"

#include <cstdlib>
#include <cstring>

#include "Kep.hpp"
#include "ZuBuffer.hpp"
#include "ZuLogger.hpp"
#include "ZuMem.hpp"
#include "ZuPrint.hpp"
#include "kep/ZuString.h"
#include "kep/ZuTime.h"

#ifndef KEP_STORE_TRACE
#define KEP_STORE_TRACE 0
#endif

static_assert(sizeof(void *) != 4 || sizeof(ZuInfo) == 276, "the board's record");

namespace {

// What a store's handle points at: the public record, and behind it what only this file counts.
struct Store {
  ZuInfo info;
  uint32_t evicted;  // records wiped to make room
  uint32_t next;     // the number of the next record, from 0; it wraps as all three do
  uint32_t oldest;   // the number of the oldest record; as `next` when there is none
};

Store *storeOf(ZuInfo *info) { return reinterpret_cast<Store *>(info); }

const Store *storeOf(const ZuInfo *info) { return reinterpret_cast<const Store *>(info); }

constexpr uint8_t kFree = 0xFF;
constexpr int32_t kFirstBlockSize = 1024;
constexpr uint32_t kSizeUnit = 1024;  // limits and grown blocks are multiples of it
constexpr uint32_t kLargestBlock = INT32_MAX / kSizeUnit * kSizeUnit;
constexpr uint32_t kLargestGrowth = 262144;  // 256 KiB a step, unless one record needs more
constexpr uint32_t kSwitchCount = 8 * sizeof(ZuInfo::idSwitches);
constexpr int32_t kLongestKey = 254;
constexpr int32_t kLongestValue = UINT16_MAX;
constexpr uint32_t kHeadSize = 3;  // key length and value length

// The key of a structured record begins so; three times a count and 'S' follow.
constexpr char kStructuredStart[] = {'T', 'B', 'h', 'I'};
constexpr size_t kLongestStructuredKey = sizeof kStructuredStart + 3 * (sizeof "65535S" - 1);
constexpr int32_t kStructuredSize = 4 + 1 + 2 + 4;  // time, type, id and code, in front of the three strings

constexpr bool kTrace = KEP_STORE_TRACE;  // print every step of making room, under the lock though it waits

// ---- the block

// The bytes of a store that has a block. Looked up once a call: whatever is then written through a byte pointer might,
// for all the compiler knows, be the store itself.
struct Block {
  uint8_t *data;
  uint32_t size;

  bool isFree(uint32_t offset) const { return offset >= size || data[offset] == kFree; }
};

uint32_t blockSize(const ZuInfo *info) { return static_cast<uint32_t>(info->block->capacity); }

Block blockOf(const ZuInfo *info) { return {memData(info->block), blockSize(info)}; }

struct Record {
  const uint8_t *key;
  uint32_t keyLength;
  uint32_t valueLength;
  uint32_t end;  // offset behind the record

  const uint8_t *value() const { return key + keyLength + 2; }
};

// Reads the record at an offset; false when it does not lie in the block whole.
inline bool readRecord(const Block &block, uint32_t offset, Record *out) {
  if (block.isFree(offset)) return false;
  out->keyLength = block.data[offset];
  out->key = block.data + offset + 1;
  const uint32_t valueOffset = offset + kHeadSize + out->keyLength;
  if (valueOffset > block.size) return false;
  out->valueLength = loadBig<uint16_t>(block.data + valueOffset - 2);
  out->end = valueOffset + out->valueLength;
  return out->end <= block.size;
}

uint32_t roundLimit(uint32_t limit) {
  constexpr uint32_t kLargestLimit = UINT32_MAX / kSizeUnit * kSizeUnit;
  return limit > kLargestLimit ? kLargestLimit : (limit + kSizeUnit - 1) / kSizeUnit * kSizeUnit;
}

void forgetRecords(ZuInfo *info) { storeOf(info)->oldest = storeOf(info)->next; }

void dropBlock(ZuInfo *info) {
  forgetRecords(info);
  ZuMem_Release(info->block);
  info->block = nullptr;
  info->freeSize = 0;
}

// ---- making room

// The size from which on the block evicts instead of growing: its limit, or that of the largest block there can be.
uint32_t largestSize(const ZuInfo *info) {
  return info->limit == 0 || info->limit > kLargestBlock ? kLargestBlock : info->limit;
}

void readFromStart(ZuInfo *info) {
  info->readOffset = 0;
  info->freeSize = static_cast<int32_t>(blockSize(info) - info->writeOffset);
}

// Wiped, not just skipped: readers know free space by its 0xFF. The room is free for a writer that is a lap ahead; to
// another it is the start of the next lap.
void wipeOldest(ZuInfo *info, const Block &block, const Record &oldest) {
  const uint32_t size = oldest.end - info->readOffset;
  const bool isLapAhead = info->writeOffset <= info->readOffset;
  std::memset(block.data + info->readOffset, kFree, size);
  info->readOffset = oldest.end;
  ++storeOf(info)->oldest;
  if (oldest.end >= block.size) {
    readFromStart(info);
  } else if (isLapAhead) {
    info->freeSize += static_cast<int32_t>(size);
  }
}

int32_t evictOne(ZuInfo *info, int32_t need) {
  if (info->readOffset < info->writeOffset) {  // the tail of the block is too small: go on writing at the start
    info->writeOffset = 0;
    info->freeSize = static_cast<int32_t>(info->readOffset);  // 0, unless the oldest records were dropped
    if (need <= info->freeSize) return 1;
  }
  const Block block = blockOf(info);
  Record oldest;
  if (!readRecord(block, info->readOffset, &oldest)) {  // a free byte: the oldest record lies at the start
    readFromStart(info);
    return 2;
  }
  wipeOldest(info, block, oldest);
  ++storeOf(info)->evicted;
  return info->freeSize < need ? 2 : 1;
}

// False when there is no record.
bool dropOldest(ZuInfo *info) {
  const Block block = blockOf(info);
  if (block.isFree(info->readOffset)) readFromStart(info);
  Record oldest;
  if (!readRecord(block, info->readOffset, &oldest)) return false;
  wipeOldest(info, block, oldest);
  return true;
}

// How much a block below its largest size grows for so many missing bytes.
uint32_t growthFor(const ZuInfo *info, uint32_t missing) {
  const uint32_t size = blockSize(info);
  const uint32_t left = largestSize(info) - size;
  const uint32_t toLimit = info->limit - size;
  if (info->limit > 0 && (toLimit < size || toLimit <= missing)) return left;
  uint32_t growth = size < kLargestGrowth ? size : kLargestGrowth;
  if (growth < missing) growth = missing < left ? (missing + kSizeUnit - 1) / kSizeUnit * kSizeUnit : left;
  return growth < left ? growth : left;
}

int32_t growBlock(ZuInfo *info, int32_t need) {
  const uint32_t oldSize = blockSize(info);
  const uint32_t growth = growthFor(info, static_cast<uint32_t>(need) - static_cast<uint32_t>(info->freeSize));
  const auto newSize = static_cast<int32_t>(oldSize + growth);
  if (kTrace) printStore(info);
  ZuMem *larger = ZuMem_realloc(info->block, newSize);
  if (!larger) {
    dropBlock(info);
    return 0;
  }
  info->block = larger;
  ZuMem_memset(larger, oldSize, kFree, growth);
  info->freeSize += static_cast<int32_t>(growth);
  if (kTrace) {
    printPastSink("add size %d, new size %d freesize %d\n", static_cast<int>(growth), static_cast<int>(newSize),
                  static_cast<int>(info->freeSize));
    printStore(info);
  }
  return info->freeSize < need ? 2 : 1;
}

// ZuInfo_FreeSize_ of a store that has a block.
int32_t makeOneStep(ZuInfo *info, int32_t need) {
  if (kTrace) printPastSink("size %d", static_cast<int>(need));
  if (need <= info->freeSize) return 1;
  if (static_cast<uint32_t>(need) > largestSize(info)) return 0;
  return blockSize(info) >= largestSize(info) ? evictOne(info, need) : growBlock(info, need);
}

// The one loop that evicts and grows; every writer passes it. Afterwards `need` bytes at the write offset are free.
bool makeRoom(ZuInfo *info, int32_t need) {
  while (info->freeSize < need) {
    if (!makeOneStep(info, need)) return false;
  }
  return uint64_t{info->writeOffset} + static_cast<uint32_t>(need) <= blockSize(info);
}

// ---- writing

struct Bytes {
  const void *data;
  int32_t length;
};

bool isWhole(const Bytes &bytes) { return bytes.length >= 0 && (bytes.data || bytes.length == 0); }

bool isKey(const Bytes &bytes) { return isWhole(bytes) && bytes.length <= kLongestKey; }

uint8_t *putBytes(uint8_t *out, const Bytes &bytes) {
  constexpr int32_t kShort = 4;  // keys mostly are, and a loop then beats a call
  if (bytes.length > kShort) {
    std::memcpy(out, bytes.data, static_cast<size_t>(bytes.length));
  } else {
    for (int32_t i = 0; i < bytes.length; ++i) out[i] = static_cast<const uint8_t *>(bytes.data)[i];
  }
  return out + bytes.length;
}

void advance(ZuInfo *info, int32_t size) {
  info->writeOffset += static_cast<uint32_t>(size);
  info->freeSize -= size;
}

int32_t headSize(const Bytes &key) { return key.length + static_cast<int32_t>(kHeadSize); }

// Makes room for a whole record and writes all but its value. Returns where the value goes, or NULL.
uint8_t *putHead(ZuInfo *info, const Bytes &key, int32_t valueLength) {
  if (!isKey(key) || valueLength < 0 || valueLength > kLongestValue) return nullptr;
  if (!makeRoom(info, headSize(key) + valueLength)) return nullptr;
  ++storeOf(info)->next;
  uint8_t *out = storeBig(memData(info->block) + info->writeOffset, static_cast<uint8_t>(key.length));
  return storeBig(putBytes(out, key), static_cast<uint16_t>(valueLength));
}

inline bool putRecord(ZuInfo *info, const Bytes &key, const Bytes &value1, const Bytes &value2) {
  if (!isWhole(value1) || !isWhole(value2) || value2.length > kLongestValue - value1.length) return false;
  uint8_t *out = putHead(info, key, value1.length + value2.length);
  if (!out) return false;
  putBytes(putBytes(out, value1), value2);
  advance(info, headSize(key) + value1.length + value2.length);
  return true;
}

// ---- reading

// keyLength - 1 on purpose: a one-byte key selects every record, and readers depend on it. The record's own key length
// is not asked, so the comparison may run into what follows the key, but not out of the block.
bool keyMatches(const Block &block, const Record &record, Bytes key) {
  if (!key.data || key.length == 0) return true;
  const size_t compared = static_cast<size_t>(key.length - 1);
  const auto room = static_cast<size_t>(block.data + block.size - record.key);
  return compared <= room && std::memcmp(record.key, key.data, compared) == 0;
}

// Reads the record behind position `pos`, -1 for the oldest; false at the end of the walk.
inline bool readNext(const ZuInfo *info, const Block &block, int32_t pos, Record *out) {
  // A read offset that rests on a free byte stands for the start of the block.
  const uint32_t oldest = block.isFree(info->readOffset) ? 0 : info->readOffset;
  if (oldest == info->writeOffset && info->freeSize != 0) return false;
  if (pos == -1) return readRecord(block, oldest, out);
  auto offset = static_cast<uint32_t>(pos);
  if (offset >= info->writeOffset && (oldest < info->writeOffset || offset < oldest)) return false;
  if (block.isFree(offset)) {
    if (offset < oldest) return false;  // been at the start already: once round is enough, whatever lies there
    offset = 0;
  }
  if (offset == oldest || !readRecord(block, offset, out)) return false;  // the oldest: round again
  return offset > oldest || out->end <= oldest;  // a damaged length that leads past the oldest would go round for ever
}

// ---- structured records

struct Structured {
  uint8_t type;
  uint16_t id;
  uint32_t code;
  Bytes data[3];
};

// Writes the key of a structured record so that it ends at `end`, and returns where it begins.
char *putStructuredKey(char *end, const Bytes (&strings)[3]) {
  for (int i = 2; i >= 0; --i) {
    *--end = 'S';
    for (auto count = static_cast<uint32_t>(strings[i].length);; count /= 10) {
      *--end = static_cast<char>('0' + count % 10);
      if (count < 10) break;
    }
  }
  end -= sizeof kStructuredStart;
  std::memcpy(end, kStructuredStart, sizeof kStructuredStart);
  return end;
}

// Takes "<digits>S" off a text; false when something else stands there.
bool takeCount(const uint8_t *&text, const uint8_t *end, int32_t *out) {
  const uint8_t *begin = text;
  int32_t count = 0;
  for (; text != end && *text >= '0' && *text <= '9'; ++text) {
    count = count * 10 + (*text - '0');
    if (count > kLongestValue) return false;
  }
  *out = count;
  return text != begin && text != end && *text++ == 'S';
}

// Reads a value by its key; false when that is not a structured record's, "TBhI%dS%dS%dS" to its last character, or
// describes another length than the value's.
bool readStructured(const uint8_t *key, uint8_t keyLength, const uint8_t *value, int32_t valueLength, Structured *out) {
  if (keyLength < sizeof kStructuredStart || std::memcmp(key, kStructuredStart, sizeof kStructuredStart) != 0) {
    return false;
  }
  const uint8_t *text = key + sizeof kStructuredStart;
  int32_t size = kStructuredSize;
  for (Bytes &data : out->data) {
    if (!takeCount(text, key + keyLength, &data.length)) return false;
    data.data = value + size;  // compared with the value's length below, before anyone reads there
    size += data.length;
  }
  if (text != key + keyLength || size != valueLength) return false;
  out->type = value[4];
  out->id = loadBig<uint16_t>(value + 5);
  out->code = loadBig<uint32_t>(value + 7);
  return true;
}

// Whether data begins with the bytes that the pairs of hex digits stand for; a missing byte counts as 0.
bool beginsWith(const Bytes &data, const char *hex) {
  const size_t count = hex ? std::strlen(hex) / 2 : 0;
  for (size_t i = 0; i < count; ++i) {
    const char pair[3] = {hex[2 * i], hex[2 * i + 1], '\0'};
    const auto wanted = static_cast<uint8_t>(std::strtol(pair, nullptr, 16));
    const bool inside = i < static_cast<size_t>(data.length);
    if ((inside ? static_cast<const uint8_t *>(data.data)[i] : 0) != wanted) return false;
  }
  return true;
}

struct Filter {
  int32_t id;
  const char *hex1;
  const char *hex2;
  int32_t code;
  int32_t type;
};

bool passes(const Structured &record, const Filter &filter) {
  if (filter.id != -1 && static_cast<uint16_t>(filter.id) != record.id) return false;
  if (!beginsWith(record.data[0], filter.hex1) || !beginsWith(record.data[1], filter.hex2)) return false;
  const auto code = static_cast<uint32_t>(filter.code);
  const bool codePasses = code == 0 || code == record.code || (filter.code == -1 && record.code != 0);
  return codePasses && (filter.type == 0 || static_cast<uint8_t>(filter.type) == record.type);
}

// Makes the dump format of a key: '*', the key and a terminator.
void putDumpFormat(char *out, const uint8_t *key, uint8_t keyLength) {
  *out = '*';
  std::memcpy(out + 1, key, keyLength);
  out[1 + keyLength] = '\0';
}

bool isSwitchable(int32_t id) { return static_cast<uint32_t>(id) < kSwitchCount; }

}  // namespace

// ---- for those who wait between records

StoreWalk::StoreWalk(ZuInfo *info) : info_(info), cursor_(-1), next_(0), end_(0), copy_(nullptr), copySize_(0) {
  const Locked locked;
  if (!info) return;
  next_ = numberOfOldest(info);
  end_ = numberOfNext(info);
}

StoreWalk::~StoreWalk() { giveLocal(copy_); }

bool StoreWalk::next(StoreRecord *out) {
  const Locked locked;
  if (!info_ || !info_->block) return false;
  int32_t place = cursor_;
  if (hasLock()) {
    const uint32_t oldest = numberOfOldest(info_);
    if (!isBefore(next_, end_) || isBefore(next_, oldest)) return false;
    if (next_ == oldest) place = -1;  // the one before it, where the cursor stands, may be gone
  }
  Record record;
  if (!readNext(info_, blockOf(info_), place, &record)) return false;
  *out = {record.key, record.value(), static_cast<uint8_t>(record.keyLength),
          static_cast<uint16_t>(record.valueLength)};
  if (hasLock() && !makeCopy(out)) return false;
  cursor_ = static_cast<int32_t>(record.end);
  ++next_;
  return true;
}

bool StoreWalk::makeCopy(StoreRecord *record) {
  constexpr uint32_t kLeastSize = 256;  // most records have room in the first copy
  const uint32_t size = uint32_t{record->keyLength} + record->valueLength;
  if (size > copySize_ || !copy_) {
    giveLocal(copy_);
    copySize_ = size > kLeastSize ? size : kLeastSize;
    copy_ = static_cast<uint8_t *>(takeLocal(copySize_));
  }
  if (!copy_) return false;
  std::memcpy(copy_, record->key, record->keyLength);
  std::memcpy(copy_ + record->keyLength, record->value, record->valueLength);
  record->key = copy_;
  record->value = copy_ + record->keyLength;
  return true;
}

uint32_t numberOfNext(const ZuInfo *info) { return storeOf(info)->next; }

uint32_t numberOfOldest(const ZuInfo *info) { return storeOf(info)->oldest; }

void dropBefore(ZuInfo *info, uint32_t number) {
  if (!info->block) return;
  bool isFound = true;
  while (isFound && isBefore(numberOfOldest(info), number)) isFound = dropOldest(info);
  if (!isFound || numberOfOldest(info) == numberOfNext(info)) ZuInfo_Clear(info);
}

ZuInfo *ZuInfo_New(uint32_t limit) {
  const Guarded guard(__func__);
  auto *store = static_cast<Store *>(takeLocal(sizeof(Store)));
  if (!store) return nullptr;
  std::memset(store, 0, sizeof *store);  // all id switches off too
  if (!ZuInfo_ReSize(&store->info, limit)) {
    giveLocal(store);
    return nullptr;
  }
  return &store->info;
}

void ZuInfo_Release(ZuInfo *info) {
  const Guarded guard(__func__);
  if (!info) return;
  ZuMem_Release(info->block);
  giveLocal(info);
}

void ZuInfo_Ignore(ZuInfo *info, int32_t on) {
  const Guarded guard(__func__);
  if (info) info->ignore = on;
}

void ZuInfo_Clear(ZuInfo *info) {
  const Guarded guard(__func__);
  if (!info || !info->block) return;
  forgetRecords(info);
  info->freeSize = info->block->capacity;
  ZuMem_memset(info->block, 0, kFree, blockSize(info));
  info->writeOffset = 0;
  info->readOffset = 0;
}

int32_t ZuInfo_ReSize(ZuInfo *info, uint32_t limit) {
  const Guarded guard(__func__);
  if (!info) return 0;
  const uint32_t rounded = roundLimit(limit);
  if (info->block) {
    if (rounded == info->limit) return 1;
    if (rounded != 0 && blockSize(info) >= rounded) dropBlock(info);
  }
  if (!info->block) info->block = ZuMem_New(kFirstBlockSize, 0);
  if (!info->block) return 0;
  info->limit = rounded;
  ZuInfo_Clear(info);
  return 1;
}

int32_t ZuInfo_FreeSize_(ZuInfo *info, int32_t need) {
  const Guarded guard(__func__);
  return info && info->block ? makeOneStep(info, need) : 0;
}

int32_t ZuInfo_Append(ZuInfo *info, const void *key, int32_t keyLen, const void *value, int32_t valueLen) {
  const Guarded guard(__func__);
  if (!info || !info->block) return -1;
  if (info->ignore) return 0;
  if (info->writeOffset > blockSize(info) || info->freeSize > info->block->capacity) return -1;
  if (keyLen < 0 || valueLen < 0) return -1;
  const Bytes cutKey = {key, keyLen & 0xFF};
  const Bytes cutValue = {value, valueLen & 0xFFFF};
  if (!putRecord(info, cutKey, cutValue, {nullptr, 0})) return -1;
  return cutKey.length + cutValue.length + static_cast<int32_t>(kHeadSize);
}

int32_t ZuInfo_Write(ZuInfo *info, const char *key, const char *text) {
  const Guarded guard(__func__);
  if (!key || !text) return -1;
  return ZuInfo_Append(info, key, static_cast<int32_t>(std::strlen(key) & 0xFF), text,
                       static_cast<int32_t>(std::strlen(text) & 0xFFFF));
}

int32_t ZuInfo_Append2Message(ZuInfo *info, const void *key, int32_t keyLen, const void *value1, int32_t len1,
                              const void *value2, int32_t len2) {
  const Guarded guard(__func__);
  if (!info) return 0;
  if (info->ignore) return 1;
  if (!info->block) return 0;
  return putRecord(info, {key, keyLen}, {value1, len1}, {value2, len2});
}

int32_t ZuInfo_PackPre(ZuInfo *info, const void *key, int32_t keyLen, int32_t valueLen) {
  const Guarded guard(__func__);
  if (!info || !key || info->ignore || !info->block) return 0;
  const size_t textLength = keyLen == 0 ? strnlen(static_cast<const char *>(key), kLongestKey + 1) : 0;
  const Bytes bytes = {key, keyLen ? keyLen : static_cast<int32_t>(textLength)};
  if (!putHead(info, bytes, valueLen)) return 0;
  advance(info, headSize(bytes));
  return 1;
}

void ZuInfo_AddInfo(ZuInfo *info, int32_t type, int32_t id, const void *data1, int32_t len1, const void *data2,
                    int32_t len2, const void *data3, int32_t len3, uint32_t code) {
  const Guarded guard(__func__);
  if (!info || info->ignore || !info->block) return;
  const Bytes strings[3] = {{data1, len1}, {data2, len2}, {data3, ZuInfo_GetFlag(info, id) ? len3 : 0}};
  int32_t size = kStructuredSize;
  for (const Bytes &bytes : strings) {
    if (!isWhole(bytes) || bytes.length > kLongestValue - size) return;
    size += bytes.length;
  }
  char buffer[kLongestStructuredKey];
  char *end = buffer + sizeof buffer;
  const char *begin = putStructuredKey(end, strings);
  const Bytes key = {begin, static_cast<int32_t>(end - begin)};
  uint8_t *out = putHead(info, key, size);
  if (!out) return;
  out = storeBig(out, static_cast<uint32_t>(ZuTime_Now()));
  out = storeBig(out, static_cast<uint8_t>(type));
  out = storeBig(out, static_cast<uint16_t>(id));
  out = storeBig(out, code);
  for (const Bytes &bytes : strings) out = putBytes(out, bytes);
  advance(info, headSize(key) + size);
}

int32_t ZuInfo_Get(ZuInfo *info, const void *key, int32_t keyLen, int32_t *cursor, const uint8_t **keyOut,
                   uint8_t *keyLenOut, const uint8_t **valueOut, uint16_t *valueLenOut) {
  const Guarded guard(__func__);
  if (!info || !info->block || !cursor || keyLen < 0) return 0;
  const Bytes wanted = {
      key, key && keyLen == 0 ? static_cast<int32_t>(std::strlen(static_cast<const char *>(key))) : keyLen};
  const Block block = blockOf(info);
  Record record;
  do {
    if (!readNext(info, block, *cursor, &record)) return 0;
    *cursor = static_cast<int32_t>(record.end);
  } while (!keyMatches(block, record, wanted));
  if (keyOut) *keyOut = record.key;
  if (keyLenOut) *keyLenOut = static_cast<uint8_t>(record.keyLength);
  if (valueOut) *valueOut = record.value();
  if (valueLenOut) *valueLenOut = static_cast<uint16_t>(record.valueLength);
  return 1;
}

int32_t ZuInfo_GetPack(ZuInfo *info, int32_t *cursor, char *formatOut, const uint8_t **valueOut) {
  const Guarded guard(__func__);
  const uint8_t *key;
  uint8_t keyLength;
  if (!ZuInfo_Get(info, nullptr, 0, cursor, &key, &keyLength, valueOut, nullptr)) return 0;
  if (formatOut) putDumpFormat(formatOut, key, keyLength);
  return 1;
}

int32_t ZuInfo_GetFlag(ZuInfo *info, int32_t id) {
  const Guarded guard(__func__);
  if (!info) return 0;
  if (!isSwitchable(id)) return 1;
  return info->idSwitches[id / 8] >> id % 8 & 1;
}

void ZuInfo_SetFlag(ZuInfo *info, int32_t id, int32_t mode) {
  const Guarded guard(__func__);
  if (!info || !isSwitchable(id)) return;
  const auto bit = static_cast<uint8_t>(1U << id % 8);
  uint8_t *byte = &info->idSwitches[id / 8];
  switch (mode) {
    case 1: *byte |= bit; break;
    case 2:
    case 3: std::memset(info->idSwitches, mode == 2 ? 0xFF : 0, sizeof info->idSwitches); break;
    default: *byte &= static_cast<uint8_t>(~bit); break;
  }
}

void ZuInfo_ShowInfo(ZuInfo *info, int32_t id, const char *hex1, const char *hex2, int32_t code, int32_t type,
                     int32_t skip, int32_t limit) {
  const Waiting mark(__func__);
  if (!info) return;
  const Filter filter = {id, hex1, hex2, code, type};
  int32_t counter = 0;
  StoreRecord found;
  for (StoreWalk walk(info); walk.next(&found);) {
    Structured record;
    if (!readStructured(found.key, found.keyLength, found.value, found.valueLength, &record)) continue;
    if (!passes(record, filter)) continue;
    ++counter;
    if (counter <= skip || (limit != 0 && counter > limit)) continue;
    ZuPrint_Show(ZuString_SFormat("index=%d,", static_cast<int>(counter)), 0);
    char format[1 + kLongestKey + 1];
    putDumpFormat(format, found.key, found.keyLength);
    ZuBuffer_UNPack(format, found.value);
  }
  ZuPrint_Show(ZuString_SFormat("Total count %d", static_cast<int>(counter)), 0);
}

uint32_t ZuInfo_GetEvicted(const ZuInfo *info) {
  const Guarded guard(__func__);
  return info ? storeOf(info)->evicted : 0;
}
