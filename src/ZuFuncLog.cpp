// ZuFuncLog.cpp: reads, filters and prints the call records that a host keeps.
//
//   record   key: function index (1)    value: time (4) | the call's data, packed with the function's format
#include "kep/ZuFuncLog.h"

#include <cstring>

#include "Kep.hpp"
#include "ZuInfo.hpp"
#include "ZuMem.hpp"
#include "kep/ZuBuffer.h"
#include "kep/ZuPrint.h"
#include "kep/ZuString.h"

static_assert(sizeof(void *) != 4 || sizeof(ZuFuncLog) == 16, "the board's record");
static_assert(sizeof(void *) != 4 || sizeof(ZuFuncLogEntry) == 16, "the board's record");

namespace {

constexpr char kTimeFormat[] = "*T";  // in front of an entry's format: a dump of the whole value

const char *orEmpty(const char *text) { return text ? text : ""; }

void showText(const char *text) { ZuPrint_Show(orEmpty(text), 0); }

bool hasFunction(const ZuFuncLog *log, const char *name) {
  for (int32_t i = 0; i < log->count; ++i) {
    if (log->table[i].name && std::strcmp(name, log->table[i].name) == 0) return true;
  }
  return false;
}

// Dumps a value by its function's format, which may be of any length. A value shorter than the format says is not
// dumped: the dump would run over its end.
void dumpCall(const char *format, const uint8_t *value, int32_t valueLength) {
  const size_t length = std::strlen(format);
  auto *whole = static_cast<char *>(takeLocal(static_cast<uint32_t>(sizeof kTimeFormat + length)));
  if (!whole) return;
  std::memcpy(whole, kTimeFormat, sizeof kTimeFormat);
  std::memcpy(whole + std::strlen(kTimeFormat), format, length + 1);
  if (ZuBuffer_GetPackSize(whole, nullptr) <= valueLength) ZuBuffer_UNPack(whole, value);
  giveLocal(whole);
}

// In pieces, so that texts of any length show whole.
void showCall(const ZuFuncLogEntry &entry, int32_t counter, const uint8_t *value, int32_t valueLength) {
  showText(ZuString_SFormat("\nindex=%d,func:", static_cast<int>(counter)));
  showText(entry.name);
  showText(" ");
  showText(entry.text);
  showText("\n");
  dumpCall(orEmpty(entry.format), value, valueLength);
}

}  // namespace

ZuFuncLog *ZuFuncLog_New(ZuFuncLogEntry *table, int32_t count, uint32_t limit) {
  const Guarded guard(__func__);
  auto *log = static_cast<ZuFuncLog *>(takeLocal(sizeof(ZuFuncLog)));
  if (!log) return nullptr;
  *log = {table, table ? count : 0, ZuInfo_New(limit), 0};
  if (!log->store) {
    giveLocal(log);
    return nullptr;
  }
  return log;
}

void ZuFuncLog_Release(ZuFuncLog *log) {
  const Guarded guard(__func__);
  if (!log) return;
  giveLocal(log->store);  // bare: the block of its records stays, as the header says
  giveLocal(log);
}

void ZuFuncLog_Ignore(ZuFuncLog *log, int32_t on) {
  const Guarded guard(__func__);
  if (log) log->ignore = on;
}

int32_t ZuFuncLog_Get(ZuFuncLog *log, int32_t id, int32_t *cursor, int32_t *idOut, const uint8_t **valueOut,
                      int32_t *valueLengthOut) {
  const Guarded guard(__func__);
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
  const Waiting mark(__func__);
  if (!log) return;
  if (name && *name && !hasFunction(log, name)) return;  // one that it has selects all records
  int32_t counter = 0;
  StoreRecord call;
  for (StoreWalk walk(log->store); walk.next(&call) && call.keyLength > 0; ++counter) {
    if (counter < skip) continue;
    const int32_t index = call.key[0];
    if (int64_t{counter} - skip >= limit || index >= log->count) return;
    showCall(log->table[index], counter, call.value, call.valueLength);
  }
}

void ZuFuncLog_ShowFunc(ZuFuncLog *log, ...) {
  const Waiting mark(__func__);
  if (!log) return;
  ZuPrint_Puts("", 0);
  for (int32_t i = 0; i < log->count; ++i) {
    const ZuFuncLogEntry &entry = log->table[i];
    showText(entry.name);
    ZuPrint_Puts(orEmpty(entry.text), 0);
    showText(ZuString_SFormat("id:%d;cnt:%d;fmt:", static_cast<int>(i), static_cast<int>(entry.count)));
    ZuPrint_Puts(orEmpty(entry.format), 0);
  }
}
