// station.cpp: a second host, with the rest of the toolkit. Read examples/board first.
//
// A timer samples the machine on the timer loop's thread, at an interval that a configuration server may set. Samples
// live in a hash table, alarms in a set, and every sample is a call in a function log. Requests, by type:
//
//   type 0   the samples and the alarms
//   type 1   the same, and the function log
//   type 2   the closing report: prints the samples as a text table, and the function table
//
// Two threads work with kep here, so the rule needs care. What the timer's callback touches is made before the threads
// start and stays at its size: it sets values in place, bits, and records of a store that is at its limit from the
// first. It neither allocates nor prints, and the host's mutex keeps it and the item callbacks apart. All else happens
// on the serving thread.
#include <kep/kep.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t kIdentity = 0x0B020000;
constexpr int32_t kWithLog = 1, kClosing = 2;  // request types
constexpr uint32_t kLogSize = 1024;            // a new store's size, so this one never grows
constexpr int32_t kDefaultIntervalMs = 1000;
constexpr uint32_t kHighLoad = 100;  // a load of 1.00
constexpr uint32_t kManyProcesses = 500;

enum Alarm : uint32_t { kLoadAlarm = 1, kProcessAlarm = 2, kAlarmCount };
enum Function : uint8_t { kSampleCall, kFunctionCount };

using Key = char[8];  // of the samples; two words, so no byte behind a key takes part in its hash
const Key kLoad = "load", kProcesses = "procs", kUptime = "uptime";
const char *const kKeys[] = {kLoad, kProcesses, kUptime};

struct Sample {
  int64_t value;
  int32_t times;  // sampled
};

std::mutex lock;  // guards what follows, once the threads run
ZuHash *samples;
ZuSet *alarms;
ZuFuncLog *calls;
ZuFuncLogEntry functions[kFunctionCount] = {{"takeSample", "II", 0, "(load, processes)"}};

CollectItem *sampleItem, *callItem;

// ---- on the timer loop's thread, under the lock

void keep(const char *key, int64_t value) {
  void *slot;
  if (!ZuHash_Get(samples, key, &slot)) return;
  Sample sample;
  std::memcpy(&sample, slot, sizeof sample);  // values lie in the table without alignment
  sample = {value, sample.times + 1};
  ZuHash_Set(samples, key, &sample);
}

// A record of the function log: its key is the function's index, its value the time and the call's data.
void logCall(uint8_t function, uint32_t first, uint32_t second) {
  ++functions[function].count;
  ZuInfo *store = calls->store;
  const int32_t size = 12;
  if (calls->ignore || !ZuInfo_PackPre(store, &function, 1, size)) return;
  ZuBuffer_Pack(ZuMem_Get(store->block, store->writeOffset), "TII", static_cast<uint32_t>(ZuTime_Now()), first, second);
  store->writeOffset += size;
  store->freeSize -= size;
}

int32_t takeSample(int32_t) {
  struct sysinfo info;
  if (sysinfo(&info) != 0) return 1;
  const auto load = static_cast<uint32_t>(info.loads[0] * 100UL >> SI_LOAD_SHIFT);
  const std::lock_guard<std::mutex> guard(lock);
  keep(kLoad, load);
  keep(kProcesses, info.procs);
  keep(kUptime, info.uptime);
  ZuSet_Set(alarms, kLoadAlarm, load > kHighLoad);
  ZuSet_Set(alarms, kProcessAlarm, info.procs > kManyProcesses);
  logCall(kSampleCall, load, info.procs);
  return 1;  // 0 would stop the timer
}

// ---- on the serving thread

Sample sampleOf(const char *key) {
  const std::lock_guard<std::mutex> guard(lock);
  Sample sample = {};
  void *slot;
  if (ZuHash_Get(samples, key, &slot)) std::memcpy(&sample, slot, sizeof sample);
  return sample;
}

bool isRaised(uint32_t alarm) {
  const std::lock_guard<std::mutex> guard(lock);
  return ZuSet_Get(alarms, alarm) != 0;
}

// Copied under the lock and sent without it: a slow server must not hold up the timer.
std::vector<std::string> copyCalls() {
  const std::lock_guard<std::mutex> guard(lock);
  std::vector<std::string> all;
  int32_t cursor = -1, function, size;
  const uint8_t *value;
  while (ZuFuncLog_Get(calls, -1, &cursor, &function, &value, &size)) {
    all.emplace_back(reinterpret_cast<const char *>(value), static_cast<size_t>(size));
  }
  return all;
}

void printReport() {
  ZuTable *table = ZuTable_New();
  ZuTable_SetCaption(table, "station");
  ZuTable_SetTitle(table, 0, "Sample", 4, "%s", 'L');
  ZuTable_SetTitle(table, 1, "Value", 3, "%lld", 'R');
  ZuTable_SetTitle(table, 2, "Times", 2, "%d", 'R');
  int32_t row = 0;
  for (const char *key : kKeys) {
    const Sample sample = sampleOf(key);
    ZuTable_Set(table, row, 0, key);
    ZuTable_Set(table, row, 1, &sample.value);
    ZuTable_Set(table, row++, 2, &sample.times);
  }
  ZuTable_Show(table);
  ZuTable_Release(table);
  const std::lock_guard<std::mutex> guard(lock);
  ZuFuncLog_ShowFunc(calls);
}

int32_t collectSamples(int32_t requestType) {
  if (requestType == kClosing) {
    printReport();
    return 0;
  }
  int32_t key = 0;
  for (const char *name : kKeys) Collect_PutLong(sampleItem, ++key, sampleOf(name).value);
  Collect_BeginSection(sampleItem, 1);  // the alarms, by number
  for (uint32_t alarm = kLoadAlarm; alarm < kAlarmCount; ++alarm) {
    Collect_PutInt(sampleItem, static_cast<int32_t>(alarm), isRaised(alarm));
  }
  Collect_EndSection(sampleItem);
  return 0;
}

int32_t testSamples(int32_t) {
  Collect_PutInt(sampleItem, 1, sampleOf(kLoad).times > 0);
  return 0;
}

int32_t collectCalls(int32_t requestType) {
  if (requestType != kWithLog) return 0;
  for (const std::string &call : copyCalls()) {
    Collect_PutStruct(callItem, 1, call.data(), static_cast<int32_t>(call.size()));
  }
  return 0;
}

void serve() {
  Collect_Init(kIdentity);  // returns only when the port cannot be had
  std::fprintf(stderr, "kep-station: cannot serve on UDP port 9099: %s\n", std::strerror(errno));
  std::_Exit(EXIT_FAILURE);
}

bool makeStores() {
  samples = ZuHash_New(sizeof(Key), sizeof(Sample), 8, nullptr);
  alarms = ZuSet_New(kAlarmCount);
  calls = ZuFuncLog_New(functions, kFunctionCount, kLogSize);
  const Sample none = {};
  bool made = samples && alarms && calls;
  for (const char *key : kKeys) made = made && ZuHash_Set(samples, key, &none);
  return made;
}

}  // namespace

int main() {
  // Without a server this takes a second at most. The timer loop looks every 100 ms.
  const int32_t answer = ZuConfig_GetInt("station", "interval", kDefaultIntervalMs);
  const int32_t intervalMs = answer > 0 ? answer : kDefaultIntervalMs;
  ZuPrint_Puts(ZuString_SFormat("sampling every %d ms", static_cast<int>(intervalMs)), 0);
  sampleItem = Collect_New("samples", collectSamples, testSamples);
  callItem = Collect_New("calls", collectCalls, nullptr);
  if (!makeStores() || !sampleItem || !callItem || !ZuTimer_Regist(takeSample, static_cast<uint32_t>(intervalMs)))
    return EXIT_FAILURE;
  takeSample(0);
  std::thread(serve).detach();
  ZuTimer_Loop();  // for ever, on this thread; a signal ends the process as it ends any other
}
