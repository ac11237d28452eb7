// ZuFuncLog.cpp: reads, filters and prints the call records that a host keeps.
//
//   record   key: function index (1)    value: time (4) | the call's data, packed with the function's format
#include "kep/ZuFuncLog.h"

#include <cstring>

#include "kep/ZuBuffer.h"
#include "kep/ZuMem.h"
#include "kep/ZuPrint.h"
#include "kep/ZuString.h"

static_assert(sizeof(void *) != 4 || sizeof(ZuFuncLog) == 16, "the board's record");
static_assert(sizeof(void *) != 4 || sizeof(ZuFuncLogEntry) == 16, "the board's record");

namespace {

constexpr int32_t kAnyFunction = -1;
constexpr char kTimeFormat[] = "*T";  // in front of an entry's format: a dump of the whole value

const char *orEmpty(const char *text) { return text ? text : ""; }

void show(const char *text) { ZuPrint_Show(orEmpty(text), 0); }

// The index of the first function of a name, or -1.
int32_t findFunction(const ZuFuncLog *log, const char *name) {
  for (int32_t i = 0; i < log->count; ++i) {
    if (log->table[i].name && std::strcmp(name, log->table[i].name) == 0) return i;
  }
  return -1;
}

// Dumps a value by its function's format, which may be of any length. A value shorter than the format says is not
// dumped: the dump would run over its end.
void dumpCall(const char *format, const uint8_t *value, int32_t valueLength) {
  const size_t length = std::strlen(format);
  auto *whole = static_cast<char *>(ZuMem_LocalMalloc(static_cast<uint32_t>(sizeof kTimeFormat + length)));
  if (!whole) return;
  std::memcpy(whole, kTimeFormat, sizeof kTimeFormat);
  std::memcpy(whole + std::strlen(kTimeFormat), format, length + 1);
  if (ZuBuffer_GetPackSize(whole, nullptr) <= valueLength) ZuBuffer_UNPack(whole, value);
  ZuMem_LocalFree(whole);
}

// In pieces, so that texts of any length show whole.
void showCall(const ZuFuncLogEntry &entry, int32_t counter, const uint8_t *value, int32_t valueLength) {
  show(ZuString_SFormat("\nindex=%d,func:", static_cast<int>(counter)));
  show(entry.name);
  show(" ");
  show(entry.text);
  show("\n");
  dumpCall(orEmpty(entry.format), value, valueLength);
}

}  // namespace

ZuFuncLog *ZuFuncLog_New(ZuFuncLogEntry *table, int32_t count, uint32_t limit) {
  auto *log = static_cast<ZuFuncLog *>(ZuMem_LocalMalloc(sizeof(ZuFuncLog)));
  if (!log) return nullptr;
  *log = {table, table ? count : 0, ZuInfo_New(limit), 0};
  if (!log->store) {
    ZuMem_LocalFree(log);
    return nullptr;
  }
  return log;
}

void ZuFuncLog_Release(ZuFuncLog *log) {
  if (!log) return;
  ZuMem_LocalFree(log->store);  // bare: the block of its records stays, as the header says
  ZuMem_LocalFree(log);
}

void ZuFuncLog_Ignore(ZuFuncLog *log, int32_t on) {
  if (log) log->ignore = on;
}

int32_t ZuFuncLog_Get(ZuFuncLog *log, int32_t id, int32_t *cursor, int32_t *idOut, const uint8_t **valueOut,
                      int32_t *valueLengthOut) {
  if (!log || id >= log->count) return 0;
  const auto idKey = static_cast<uint8_t>(id);
  const bool hasKey = id >= 0;
  const uint8_t *key;
  const uint8_t *value;
  uint8_t keyLength;
  uint16_t valueLength;
  if (!ZuInfo_Get(log->store, hasKey ? &idKey : nullptr, hasKey, cursor, &key, &keyLength, &value, &valueLength)) {
    return 0;
  }
  if (valueLengthOut) *valueLengthOut = valueLength;
  if (keyLength == 0) return 0;
  if (valueOut) *valueOut = value;
  if (idOut) *idOut = *key;
  return 1;
}

void ZuFuncLog_Show(ZuFuncLog *log, const char *name, int32_t skip, int32_t limit) {
  if (!log) return;
  int32_t id = kAnyFunction;
  if (name && *name) {
    id = findFunction(log, name);
    if (id < 0) return;
  }
  int32_t cursor = -1;
  int32_t index;
  const uint8_t *value;
  int32_t valueLength;
  for (int32_t counter = 0; ZuFuncLog_Get(log, id, &cursor, &index, &value, &valueLength); ++counter) {
    if (counter < skip) continue;
    if (int64_t{counter} - skip >= limit || index >= log->count) return;
    showCall(log->table[index], counter, value, valueLength);
  }
}

void ZuFuncLog_ShowFunc(ZuFuncLog *log, ...) {
  if (!log) return;
  ZuPrint_Puts("", 0);
  for (int32_t i = 0; i < log->count; ++i) {
    const ZuFuncLogEntry &entry = log->table[i];
    show(entry.name);
    ZuPrint_Puts(orEmpty(entry.text), 0);
    show(ZuString_SFormat("id:%d;cnt:%d;fmt:", static_cast<int>(i), static_cast<int>(entry.count)));
    ZuPrint_Puts(orEmpty(entry.format), 0);
  }
}
