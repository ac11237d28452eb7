// collect_api.cpp: the items of the collection service, the values they report, and the loop that serves requests.
//
// Items may come and go on any thread while a run is under way. One that is released then is only marked; the end of
// the run frees it and closes the gap. New ones come behind those of the run.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "Kep.hpp"
#include "ZuFault.hpp"
#include "ZuInfo.hpp"
#include "ZuLogger.hpp"
#include "collect_client.hpp"
#include "collect_getdata.hpp"
#include "collect_stop.hpp"
#include "kep/ZuMem.h"

CollectParam g_collect_param;

static_assert(sizeof(void *) != 4 || sizeof(CollectItem) == 36, "the board's record");
static_assert(sizeof(void *) != 4 || sizeof(CollectParam) == 84, "the board's record");

namespace {

constexpr int32_t kItemCount = sizeof(CollectParam::items) / sizeof(CollectParam::items[0]);
constexpr size_t kLongestItemName = sizeof(CollectItem::name) - 1;
constexpr uint32_t kCollectLogSize = 0x100000;

CollectAccess l_access;  // NULL: everyone is served. Any thread may set it

// All of this, and the table of items, is under the lock.
uint32_t l_logSize = kCollectLogSize;
uint32_t l_released;  // a bit for each item that is to be freed when no run needs it
int32_t l_runs;       // under way: a callback may begin another

bool isReleased(int32_t place) { return l_released >> place & 1; }

// Where an item stands, -1 for one that does not, or that is released. It may be freed: only its address is looked at.
int32_t placeOf(const CollectItem *item) {
  const CollectParam &param = g_collect_param;
  for (int32_t i = 0; i < param.count; ++i) {
    if (param.items[i] == item && !isReleased(i)) return i;
  }
  return -1;
}

void freeReleased() {
  CollectItem **const items = g_collect_param.items;
  const int32_t count = g_collect_param.count;
  int32_t kept = 0;
  for (int32_t i = 0; i < count; ++i) {
    CollectItem *item = items[i];
    items[i] = nullptr;
    if (isReleased(i)) {
      ZuMem_Free(kCollectModule, item);
    } else {
      item->index = kept;
      items[kept++] = item;
    }
  }
  g_collect_param.count = kept;
  l_released = 0;
}

#ifdef NDEBUG
void warnOf(const char *) {}
#else
bool isNamed(const char *name) {
  const CollectParam &param = g_collect_param;
  for (int32_t i = 0; i < param.count; ++i) {
    if (!isReleased(i) && std::strncmp(param.items[i]->name, name, kLongestItemName) == 0) return true;
  }
  return false;
}

// Says once each, of an item to be registered, that there is no room, or that a server cannot tell it from another.
void warnOf(const char *name) {
  static bool isFullSaid, isTwiceSaid;
  bool isFull, isTwice;
  {
    const Locked locked;
    isFull = g_collect_param.count >= kItemCount;
    isTwice = isNamed(name);
  }
  if (isFull && !__atomic_exchange_n(&isFullSaid, true, __ATOMIC_RELAXED)) {
    std::fprintf(stderr, "kep: %s is collection item 20, and there are 19 at most\n", name);
  }
  if (isTwice && !__atomic_exchange_n(&isTwiceSaid, true, __ATOMIC_RELAXED)) {
    std::fprintf(stderr, "kep: two collection items are named %s\n", name);
  }
}
#endif

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
  StoreRecord record;
  for (StoreWalk walk(storeOfLogger(log)); walk.next(&record);) {
    if (record.valueLength > 0) {
      sendString(item, key, reinterpret_cast<const char *>(record.value), record.valueLength);
    } else {
      CollectClient_CollectString(item->index, item->section, key, "", 0);
    }
  }
}

// Only the port's low 16 bits count when connecting, so they are what is decided on.
bool isRefused(const char *addressText, int32_t port, uint32_t type) {
  const CollectAccess access = __atomic_load_n(&l_access, __ATOMIC_RELAXED);
  return access && !access(addressText, port & 0xFFFF, static_cast<int32_t>(type));
}

void serveOne(int fd, uint8_t id0, uint8_t id1) {
  uint32_t type;
  char addressText[16];
  int32_t port;
  const int32_t sequence = CollectClient_WaitFor(fd, id0, id1, &type, addressText, &port);
  if (sequence == -1) return;
  if (isRefused(addressText, port, type)) {
    countUp(collectStats().refused);
  } else if (type == COLLECTCLIENT_SELFTEST) {
    Collect_SelfTest(addressText, port, sequence, id0, id1);
  } else {
    Collect_Start(addressText, port, static_cast<int32_t>(type), sequence, id0, id1);
  }
}

// One that was there before the service is not its own. A service that goes on after a stop keeps its own.
void makeLogger() {
  static bool isMade;
  const Locked locked;
  CollectParam &param = g_collect_param;
  if (isMade && param.logger) return;
  isMade = true;
  param.logger = ZuLogger_New(255);
  ZuLogger_SetInfoSize(param.logger, l_logSize);
}

void serveUntilStopped(int fd, uint32_t identity) {
  noteService(true);
  while (!isStopped()) serveOne(fd, static_cast<uint8_t>(identity >> 24), static_cast<uint8_t>(identity >> 16));
  noteService(false);
  dropRun();
  close(fd);
}

}  // namespace

int32_t beginItems() {
  const Locked locked;
  ++l_runs;
  return g_collect_param.count;
}

int32_t endItems(bool isDone) {
  countRun(isDone);
  const Locked locked;
  if (--l_runs == 0 && l_released != 0) freeReleased();
  return isDone;
}

const CollectItem *itemOfRun(int32_t index) {
  const Locked locked;
  return isReleased(index) ? nullptr : g_collect_param.items[index];
}

int32_t Collect_Init(uint32_t identity) {
  const Waiting mark(__func__);
  if (!beginService()) return -1;
  const int fd = CollectClient_Init();
  if (fd >= 0) {
    makeLogger();
    serveUntilStopped(fd, identity);
  }
  return endService() ? 0 : fd;
}

CollectItem *Collect_New(const char *name, CollectFunc collect, CollectFunc selftest) {
  const Waiting mark(__func__);  // where the build warns
  if (!name || !*name) return nullptr;
  warnOf(name);
  const Locked locked;
  CollectParam &param = g_collect_param;
  if (param.count >= kItemCount) return nullptr;
  auto *item = static_cast<CollectItem *>(ZuMem_Malloc(kCollectModule, sizeof(CollectItem)));
  if (!item) return nullptr;
  *item = {param.count, collect, selftest, 0, {}};
  std::memcpy(item->name, name, strnlen(name, kLongestItemName));
  param.items[param.count++] = item;
  return item;
}

void Collect_Release(CollectItem *item) {
  const Guarded guard(__func__);
  const int32_t place = placeOf(item);
  if (place < 0) return;
  l_released |= 1U << place;
  if (l_runs == 0) freeReleased();
}

void Collect_BeginSection(CollectItem *item, int32_t section) {
  const Waiting mark(__func__);
  if (item) item->section = section;
}

void Collect_EndSection(CollectItem *item) {
  const Waiting mark(__func__);
  if (item) item->section = 0;
}

void Collect_PutInt(CollectItem *item, int32_t key, int32_t value) {
  const Waiting mark(__func__);
  if (item) CollectClient_CollectInt(item->index, item->section, key, value);
}

void Collect_PutLong(CollectItem *item, int32_t key, int64_t value) {
  const Waiting mark(__func__);
  if (item) CollectClient_CollectLong(item->index, item->section, key, value);
}

void Collect_PutString(CollectItem *item, int32_t key, const char *text, int32_t length) {
  const Waiting mark(__func__);
  if (!item || !text) return;
  sendString(item, key, text, length == 0 ? static_cast<int32_t>(strnlen(text, INT32_MAX)) : length);
}

void Collect_PutStruct(CollectItem *item, int32_t key, const void *data, int32_t length) {
  const Waiting mark(__func__);
  if (item && data) sendBuffer(item, key, static_cast<const uint8_t *>(data), length);
}

void Collect_PutInitLog(CollectItem *item, int32_t key, const ZuFault *logs) {
  const Waiting mark(__func__);
  if (logs) sendLog(item, key, logs->initLog);
}

void Collect_PutRunLog(CollectItem *item, int32_t key, const ZuFault *logs) {
  const Waiting mark(__func__);
  if (logs) sendLog(item, key, logs->runLog);
}

void Collect_PutLog(CollectItem *item, int32_t key, ZuLogger *logger) {
  const Waiting mark(__func__);
  sendLog(item, key, logger);
}

void Collect_SetLogSize(uint32_t size) {
  const Guarded guard(__func__);
  l_logSize = size == 0 ? kCollectLogSize : size;
  ZuLogger_SetInfoSize(g_collect_param.logger, l_logSize);
}

void Collect_ShowLog(void) {
  const Waiting mark(__func__);
  ZuLogger *logger;
  {
    const Locked locked;
    logger = g_collect_param.logger;
  }
  ZuLogger_ShowInfo(logger);
}

void Collect_SetAccess(CollectAccess access) {
  const Waiting mark(__func__);
  __atomic_store_n(&l_access, access, __ATOMIC_RELAXED);
}
