// ZuLogger.cpp: text lines as records of a store: for each line its time, then its text, under the same key.
#include "ZuLogger.hpp"

#include <unistd.h>

#include <cstring>

#include "ZuBuf.hpp"
#include "ZuMem.hpp"
#include "ZuPrint.hpp"
#include "kep/ZuTime.h"
#include "kep/platform.h"

ZuLogger *g_kep_logger;

namespace {

constexpr uint32_t kQuiet = 0x10;
constexpr uint32_t kKeep = 0x40;
constexpr uint32_t kEcho = 0x80;
constexpr uint32_t kDefaultStoreSize = 0x100000;
constexpr int32_t kHeaderCount = sizeof(ZuLogger::headers) / sizeof(ZuLogger::headers[0]);
constexpr uint16_t kRecordsAPause = 100;
constexpr uint32_t kPauseMs = 1000;
constexpr uintptr_t kLowestAddress = 101;  // a smaller one is a number for "no buffer"

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

const char *nowAsText(TimeText *time) {
  const auto now = ZuTime_Now();
  if (!time->isSet || now != time->second) {
    ZuTime_Format(time->text, time->pattern, now);
    time->second = now;
    time->isSet = true;
  }
  return time->text;
}

void copyCut(char *field, size_t size, const char *text) {
  const size_t length = strnlen(text, size - 1);
  std::memcpy(field, text, length);
  field[length] = '\0';
}

char keyOf(int32_t level) { return level == 2 ? 'w' : level == 3 ? 'e' : 'l'; }

bool accepts(const ZuLogger *logger, int32_t level) {
  return level < 0 || level > 3 || (logger->flags >> level & 1) != 0;
}

void echo(const ZuLogger *logger, int32_t level, const char *text) {
  if (!(logger->flags & kEcho)) return;
  const bool isShown = logger->flags & kQuiet ? level == 0 || level == 3 : *text != '\0';
  if (!isShown) return;
  ZuPrint_Show(text, 0);
  if (level != 0) ZuPrint_Show("\n", 1);  // lines of level 0 carry their own
}

// As ZuInfo_Write, which would measure the key.
int32_t keepText(ZuInfo *store, char key, const char *text) {
  return ZuInfo_Append(store, &key, 1, text, static_cast<int32_t>(std::strlen(text) & 0xFFFF));
}

int32_t keep(ZuLogger *logger, int32_t level, TimeText *time, const char *text) {
  if (!logger->store) logger->store = ZuInfo_New(logger->storeSize);
  const char key = keyOf(level);
  const int32_t timeResult = keepText(logger->store, key, nowAsText(time));
  return timeResult + keepText(logger->store, key, text);
}

// A value of length 0 is an empty line, where both sinks would take the length as "measure the text".
void showRecord(ZuBuf *buffer, const uint8_t *value, uint16_t length) {
  if (buffer) {
    if (length > 0) ZuBuf_Append(buffer, value, length);
    ZuBuf_Append(buffer, "\n", 1);
  } else {
    if (length > 0) ZuPrint_Show(reinterpret_cast<const char *>(value), length);
    ZuPrint_Show("\n", 1);
  }
}

unsigned lowBits(const void *address) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address)); }

}  // namespace

ZuLogger *ZuLogger_New(uint32_t flags) {
  auto *logger = static_cast<ZuLogger *>(ZuMem_LocalMalloc(sizeof(ZuLogger)));
  if (!logger) return nullptr;
  std::memset(logger, 0, sizeof *logger);
  logger->flags = flags;
  logger->storeSize = kDefaultStoreSize;
  logger->headerDepth = -1;
  return logger;
}

void ZuLogger_Release(ZuLogger *logger) {
  if (!logger) return;
  ZuInfo_Release(logger->store);
  if (logger->descriptor != 0) close(logger->descriptor);
  ZuMem_LocalFree(logger);
}

void ZuLogger_Ignore(ZuLogger *logger, int32_t on) {
  if (logger) logger->ignore = on;
}

void ZuLogger_SetInfoSize(ZuLogger *logger, uint32_t size) {
  if (logger && !logger->store) logger->storeSize = size;
}

void ZuLogger_SetFlag(ZuLogger *logger, uint32_t flags) {
  if (logger) logger->flags = flags;
}

void ZuLogger_SetFileName(ZuLogger *logger, const char *name) {
  if (logger && name) copyCut(logger->fileName, sizeof logger->fileName, name);
}

void ZuLogger_SetUDP(ZuLogger *logger, const char *host, int32_t port) {
  if (!logger) return;
  if (host) copyCut(logger->udpHost, sizeof logger->udpHost, host);
  logger->udpPort = port;
}

void ZuLogger_Header(ZuLogger *logger, const char *text) {
  if (!logger || !text) return;
  if (logger->headerDepth < kHeaderCount - 1) ++logger->headerDepth;
  copyCut(logger->headers[logger->headerDepth], sizeof logger->headers[0], text);
}

void ZuLogger_Tail(ZuLogger *logger) {
  if (logger && logger->headerDepth >= 0) --logger->headerDepth;
}

int32_t ZuLogger_Write(ZuLogger *logger, int32_t level, const char *text) {
  if (!logger) return -1;
  if (logger->ignore) return 0;
  if (!accepts(logger, level) || !text) return -1;
  echo(logger, level, text);
  if (!(logger->flags & kKeep)) return -1;
  return keep(logger, level, &l_longTime, text);
}

void ZuLogger_Append(ZuLogger *logger, int32_t level, int32_t, const char *text) {
  if (!logger || logger->ignore || !text) return;
  if (*text && level == 0) {
    ZuPrint_Show(text, 0);
    ZuPrint_Show("\n", 1);
  }
  keep(logger, level, &l_shortTime, text);
}

void ZuLogger_ShowToBuf(ZuLogger *logger, ZuBuf *buffer) {
  if (!logger) return;
  if (reinterpret_cast<uintptr_t>(buffer) < kLowestAddress) buffer = nullptr;
  if (buffer && !holdsBytes(buffer)) return;
  int32_t cursor = -1;
  const uint8_t *value;
  uint16_t length;
  for (uint16_t shown = 0; ZuInfo_Get(logger->store, nullptr, 0, &cursor, nullptr, nullptr, &value, &length); ++shown) {
    showRecord(buffer, value, length);
    if (shown % kRecordsAPause == 0) VRK_Delay(kPauseMs);
  }
}

void ZuLogger_ShowInfo(ZuLogger *logger) { ZuLogger_ShowToBuf(logger, nullptr); }

void ZuLogger_ClearInfo(ZuLogger *logger) {
  if (logger) ZuInfo_Clear(logger->store);
}

void ZuLogger_Dump(ZuInfo *store) {
  if (!store) return;
  printPastSink(
      "logger info addr: 0x%x\n"
      "memory addr: 0x%x\n"
      "memory size: %d\n"
      "free addr:   %d\n"
      "use  addr:   %d\n"
      "maxsize: %d\n"
      "freesize: %d\n",
      lowBits(store), lowBits(store->block), static_cast<int>(store->block ? store->block->capacity : 0),
      static_cast<int>(store->writeOffset), static_cast<int>(store->readOffset), static_cast<int>(store->limit),
      static_cast<int>(store->freeSize));
}
