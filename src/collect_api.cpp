// collect_api.cpp: the items of the collection service, the values they report, and the loop that serves requests.
#include <cstring>

#include "ZuFault.hpp"
#include "ZuLogger.hpp"
#include "collect_client.hpp"
#include "kep/ZuMem.h"

CollectParam g_collect_param;

static_assert(sizeof(void *) != 4 || sizeof(CollectItem) == 36, "the board's record");
static_assert(sizeof(void *) != 4 || sizeof(CollectParam) == 84, "the board's record");

namespace {

constexpr int32_t kModuleId = 100;  // of tracked memory
constexpr int32_t kItemCount = sizeof(CollectParam::items) / sizeof(CollectParam::items[0]);
constexpr size_t kLongestName = sizeof(CollectItem::name) - 1;
constexpr uint32_t kSelfTestRequest = 3;

CollectAccess l_access;  // NULL: everyone is served

bool isRegistered(const CollectItem *item) {
  if (!item) return false;
  const CollectParam &param = g_collect_param;
  return item->index >= 0 && item->index < param.count && param.items[item->index] == item;
}

// Both loops end when a call takes nothing: outside a run no call does.
void sendString(const CollectItem *item, int32_t key, const char *text, int32_t length) {
  while (length > 0) {
    const int32_t taken = CollectClient_CollectString(item->index, item->section, key, text, length);
    if (taken <= 0) return;
    text += taken;
    length -= taken;
  }
}

void sendBuffer(const CollectItem *item, int32_t key, const uint8_t *data, int32_t length) {
  while (length > 0) {
    const int32_t taken = CollectClient_CollectBuffer(item->index, item->section, key, data, length);
    if (taken <= 0) return;
    data += taken;
    length -= taken;
  }
}

// Sends every record of a log as one string. An empty line has its record too; the client measures a text given with
// length 0, so it gets an empty one.
void sendLog(const CollectItem *item, int32_t key, const ZuLogger *log) {
  if (!item || !log) return;
  int32_t cursor = -1;
  const uint8_t *value;
  uint16_t length;
  while (ZuInfo_Get(log->store, nullptr, 0, &cursor, nullptr, nullptr, &value, &length)) {
    if (length > 0) {
      sendString(item, key, reinterpret_cast<const char *>(value), length);
    } else {
      CollectClient_CollectString(item->index, item->section, key, "", 0);
    }
  }
}

void serveOne(int fd, uint8_t id0, uint8_t id1) {
  uint32_t type;
  char addressText[16];
  int32_t port;
  const int32_t sequence = CollectClient_WaitFor(fd, id0, id1, &type, addressText, &port);
  if (sequence == -1) return;
  // Only the port's low 16 bits count when connecting, so they are what is decided on.
  if (l_access && !l_access(addressText, port & 0xFFFF, static_cast<int32_t>(type))) {
    ++collectStats().refused;
    return;
  }
  if (type == kSelfTestRequest) {
    Collect_SelfTest(addressText, port, sequence, id0, id1);
  } else {
    Collect_Start(addressText, port, static_cast<int32_t>(type), sequence, id0, id1);
  }
}

}  // namespace

int32_t Collect_Init(uint32_t identity) {
  const int fd = CollectClient_Init();
  if (fd < 0) return fd;
  g_collect_param.logger = ZuLogger_New(255);
  const auto id0 = static_cast<uint8_t>(identity >> 24);
  const auto id1 = static_cast<uint8_t>(identity >> 16);
  for (;;) serveOne(fd, id0, id1);
}

CollectItem *Collect_New(const char *name, CollectFunc collect, CollectFunc selftest) {
  CollectParam &param = g_collect_param;
  if (!name || !*name || param.count >= kItemCount) return nullptr;
  auto *item = static_cast<CollectItem *>(ZuMem_Malloc(kModuleId, sizeof(CollectItem)));
  if (!item) return nullptr;
  *item = {param.count, collect, selftest, 0, {}};
  std::memcpy(item->name, name, strnlen(name, kLongestName));
  param.items[param.count++] = item;
  return item;
}

void Collect_Release(CollectItem *item) {
  if (!isRegistered(item)) return;
  CollectParam &param = g_collect_param;
  --param.count;
  for (int32_t i = item->index; i < param.count; ++i) {
    param.items[i] = param.items[i + 1];
    param.items[i]->index = i;
  }
  param.items[param.count] = nullptr;
  ZuMem_Free(kModuleId, item);
}

void Collect_BeginSection(CollectItem *item, int32_t section) {
  if (item) item->section = section;
}

void Collect_EndSection(CollectItem *item) {
  if (item) item->section = 0;
}

void Collect_PutInt(CollectItem *item, int32_t key, int32_t value) {
  if (item) CollectClient_CollectInt(item->index, item->section, key, value);
}

void Collect_PutLong(CollectItem *item, int32_t key, int64_t value) {
  if (item) CollectClient_CollectLong(item->index, item->section, key, value);
}

void Collect_PutString(CollectItem *item, int32_t key, const char *text, int32_t length) {
  if (!item || !text) return;
  sendString(item, key, text, length == 0 ? static_cast<int32_t>(strnlen(text, INT32_MAX)) : length);
}

void Collect_PutStruct(CollectItem *item, int32_t key, const void *data, int32_t length) {
  if (item && data) sendBuffer(item, key, static_cast<const uint8_t *>(data), length);
}

void Collect_PutInitLog(CollectItem *item, int32_t key, const ZuFault *logs) {
  if (logs) sendLog(item, key, logs->initLog);
}

void Collect_PutRunLog(CollectItem *item, int32_t key, const ZuFault *logs) {
  if (logs) sendLog(item, key, logs->runLog);
}

void Collect_ShowLog(void) { ZuLogger_ShowInfo(g_collect_param.logger); }

void Collect_SetAccess(CollectAccess access) { l_access = access; }

void Collect_GetStats(CollectStats *out) {
  if (out) *out = collectStats();
}
