// ZuLogger.cpp: text lines as records of a store: for each line its time, then its text, under the same key.
#include "ZuLogger.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "Kep.hpp"
#include "ZuBuf.hpp"
#include "ZuInfo.hpp"
#include "ZuMem.hpp"
#include "ZuPrint.hpp"
#include "kep/ZuTime.h"
#include "kep/platform.h"

ZuLogger *g_kep_logger;

namespace {

constexpr uint32_t kDefaultStoreSize = 0x100000;
constexpr int32_t kHeaderCount = sizeof(ZuLogger::headers) / sizeof(ZuLogger::headers[0]);
constexpr uint16_t kRecordsAPause = 100;
constexpr uint32_t kPauseMs = 1000;

// The text of the current second. A line asks for another only when the second is another one, which takes a tenth of
// the time; a changed zone shows by the next.
struct TimeText {
  const char *pattern;
  bool isSet;  // not before the first line: a clock may begin at any second
  int64_t second;
  char text[64];
};

TimeText l_longTime = {"YYYY/MM/DD HH:MI:SS", false, 0, ""};
TimeText l_shortTime = {"MM/DD HH:MI:SS", false, 0, ""};

// Under the lock, as is the text for as long as it is used.
const char *nowAsText(TimeText *time) {
  const auto now = ZuTime_Now();
  if (!time->isSet || now != time->second) {
    ZuTime_Format(time->text, time->pattern, now);
    time->second = now;
    time->isSet = true;
  }
  return time->text;
}

void setText(char *field, size_t size, const char *text) {
  const size_t length = strnlen(text, size - 1);
  std::memcpy(field, text, length);
  field[length] = '\0';
}

// What decides on a line, as it is when the line comes.
struct Settings {
  uint32_t flags;
  bool ignores;
};

Settings settingsOf(const ZuLogger *logger) {
  const Locked locked;
  return {logger->flags, logger->ignore != 0};
}

char keyOf(int32_t level) { return level == ZULOGGER_WARNING ? 'w' : level == ZULOGGER_ERROR ? 'e' : 'l'; }

bool accepts(uint32_t flags, int32_t level) { return level < 0 || level > 3 || (flags >> level & 1) != 0; }

void echo(uint32_t flags, int32_t level, const char *text) {
  if (!(flags & ZULOGGER_ECHO)) return;
  const bool isShown = flags & ZULOGGER_QUIET ? level == ZULOGGER_PLAIN || level == ZULOGGER_ERROR : *text != '\0';
  if (!isShown) return;
  if (level == ZULOGGER_PLAIN) {
    ZuPrint_Show(text, 0);
  } else {
    ZuPrint_Puts(text, 0);
  }
}

// As ZuInfo_Write, which would measure the key.
int32_t keepText(ZuInfo *store, char key, const char *text) {
  return ZuInfo_Append(store, &key, 1, text, static_cast<int32_t>(std::strlen(text) & 0xFFFF));
}

// Both records under one lock: no other thread's come between them.
int32_t keep(ZuLogger *logger, int32_t level, TimeText *time, const char *text) {
  const Locked locked;
  if (!logger->store) logger->store = ZuInfo_New(logger->storeSize);
  const char key = keyOf(level);
  const int32_t timeResult = keepText(logger->store, key, nowAsText(time));
  return timeResult + keepText(logger->store, key, text);
}

// A value of length 0 is an empty line, where the sink and the buffer would take the length as "measure the text".
void printRecord(const uint8_t *value, uint16_t length) {
  ZuPrint_Puts(length > 0 ? reinterpret_cast<const char *>(value) : "", length);
}

void appendRecord(ZuBuf *buffer, const uint8_t *value, uint16_t length) {
  if (length > 0) ZuBuf_Append(buffer, value, length);
  ZuBuf_Append(buffer, "\n", 1);
}

unsigned lowBits(const void *address) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address)); }

}  // namespace

int32_t writeLine(ZuLogger *logger, int32_t level, const char *text, bool mayEcho) {
  if (!logger) return -1;
  const Settings settings = settingsOf(logger);
  if (settings.ignores) return 0;
  if (!accepts(settings.flags, level) || !text) return -1;
  if (mayEcho) echo(settings.flags, level, text);
  if (!(settings.flags & ZULOGGER_KEEP)) return -1;
  return keep(logger, level, &l_longTime, text);
}

ZuInfo *storeOfLogger(const ZuLogger *logger) {
  const Locked locked;
  return logger->store;
}

void printStore(const ZuInfo *store) {
  char text[256];
  {
    const Locked locked;
    std::snprintf(text, sizeof text,
                  "logger info addr: 0x%x\n"
                  "memory addr: 0x%x\n"
                  "memory size: %d\n"
                  "free addr:   %d\n"
                  "use  addr:   %d\n"
                  "maxsize: %d\n"
                  "freesize: %d\n",
                  lowBits(store), lowBits(store->block), static_cast<int>(store->block ? store->block->capacity : 0),
                  static_cast<int>(store->writeOffset), static_cast<int>(store->readOffset),
                  static_cast<int>(store->limit), static_cast<int>(store->freeSize));
  }
  printPastSink("%s", text);
}

ZuLogger *ZuLogger_New(uint32_t flags) {
  const Guarded guard(__func__);
  auto *logger = static_cast<ZuLogger *>(takeLocal(sizeof(ZuLogger)));
  if (!logger) return nullptr;
  std::memset(logger, 0, sizeof *logger);
  logger->flags = flags;
  logger->storeSize = kDefaultStoreSize;
  logger->headerDepth = -1;
  return logger;
}

// Closing may wait and so comes before the lock. Those who release a logger under the lock gave it no descriptor.
void ZuLogger_Release(ZuLogger *logger) {
  if (logger && logger->descriptor != 0) close(logger->descriptor);
  const Guarded guard(__func__);
  if (!logger) return;
  ZuInfo_Release(logger->store);
  giveLocal(logger);
}

void ZuLogger_Ignore(ZuLogger *logger, int32_t on) {
  const Guarded guard(__func__);
  if (logger) logger->ignore = on;
}

void ZuLogger_SetInfoSize(ZuLogger *logger, uint32_t size) {
  const Guarded guard(__func__);
  if (logger && !logger->store) logger->storeSize = size;
}

void ZuLogger_SetFlag(ZuLogger *logger, uint32_t flags) {
  const Guarded guard(__func__);
  if (logger) logger->flags = flags;
}

void ZuLogger_SetFileName(ZuLogger *logger, const char *name) {
  const Guarded guard(__func__);
  if (logger && name) setText(logger->fileName, sizeof logger->fileName, name);
}

void ZuLogger_SetUDP(ZuLogger *logger, const char *host, int32_t port) {
  const Guarded guard(__func__);
  if (!logger) return;
  if (host) setText(logger->udpHost, sizeof logger->udpHost, host);
  logger->udpPort = port;
}

void ZuLogger_Header(ZuLogger *logger, const char *text) {
  const Guarded guard(__func__);
  if (!logger || !text) return;
  if (logger->headerDepth < kHeaderCount - 1) ++logger->headerDepth;
  setText(logger->headers[logger->headerDepth], sizeof logger->headers[0], text);
}

void ZuLogger_Tail(ZuLogger *logger) {
  const Guarded guard(__func__);
  if (logger && logger->headerDepth >= 0) --logger->headerDepth;
}

int32_t ZuLogger_Write(ZuLogger *logger, int32_t level, const char *text) {
  const Waiting mark(__func__);
  return writeLine(logger, level, text, true);
}

void ZuLogger_Append(ZuLogger *logger, int32_t level, int32_t, const char *text) {
  const Waiting mark(__func__);
  if (!logger || settingsOf(logger).ignores || !text) return;
  if (*text && level == ZULOGGER_PLAIN) ZuPrint_Puts(text, 0);
  keep(logger, level, &l_shortTime, text);
}

void ZuLogger_ShowToBuf(ZuLogger *logger, ZuBuf *buffer) {
  const Waiting mark(__func__);
  if (!logger) return;
  const bool isPrinted = !isAddress(buffer);
  if (!isPrinted && !holdsBytes(buffer)) return;
  StoreRecord record;
  uint16_t shown = 0;
  for (StoreWalk walk(storeOfLogger(logger)); walk.next(&record); ++shown) {
    if (isPrinted) {
      printRecord(record.value, record.valueLength);
    } else {
      appendRecord(buffer, record.value, record.valueLength);
    }
    if (shown % kRecordsAPause == 0) VRK_Delay(kPauseMs);
  }
}

void ZuLogger_CopyToBuf(ZuLogger *logger, ZuBuf *buffer) {
  const Guarded guard(__func__);
  if (!logger || !isAddress(buffer) || !holdsBytes(buffer)) return;
  int32_t cursor = -1;
  const uint8_t *value;
  uint16_t length;
  while (ZuInfo_Get(logger->store, nullptr, 0, &cursor, nullptr, nullptr, &value, &length)) {
    appendRecord(buffer, value, length);
  }
}

void ZuLogger_ShowInfo(ZuLogger *logger) {
  const Waiting mark(__func__);
  ZuLogger_ShowToBuf(logger, nullptr);
}

void ZuLogger_ClearInfo(ZuLogger *logger) {
  const Guarded guard(__func__);
  if (logger) ZuInfo_Clear(logger->store);
}

void ZuLogger_Dump(ZuInfo *store) {
  const Waiting mark(__func__);
  if (store) printStore(store);
}
