// board.cpp: a small host. It samples its machine once a second and answers a collection server's requests, by type:
//
//   type 0   figures: the system, its memory, its network interfaces
//   type 1   the same, and the logs of its faults
//   type 2   the fault file: runs every fault's callback and saves what they record; prints the memory table
//
// The threading rule of a host that gives kep no lock: before the service starts, main() calls it; from then on every
// call is made on the serving thread, inside the callbacks below. main() touches host data only, behind its mutex.
#include <kep/kep.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {
constexpr uint32_t kIdentity = 0x0B010000;        // the first two bytes name this board to the server
constexpr int32_t kWithLogs = 1, kFaultFile = 2;  // request types

// ---- host data: written by main(), read by the callbacks

struct Sample {
  int32_t count, processes, uptime;  // uptime in seconds
  int64_t freeBytes;
  uint32_t load[3];  // of 1, 5 and 15 minutes, in hundredths
};

std::mutex sampleLock;
Sample sample;

std::string readFile(const char *path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void takeSample() {
  struct sysinfo info;
  const std::string memory = readFile("/proc/meminfo");
  long long freeKb;
  if (sysinfo(&info) != 0 || std::sscanf(memory.c_str(), "MemTotal: %*u kB MemFree: %lld", &freeKb) != 1) return;
  const std::lock_guard<std::mutex> guard(sampleLock);
  ++sample.count;
  sample.processes = info.procs;
  sample.freeBytes = freeKb * 1024;
  for (int i = 0; i < 3; ++i) sample.load[i] = static_cast<uint32_t>(info.loads[i] * 100UL >> SI_LOAD_SHIFT);
  sample.uptime = static_cast<int32_t>(info.uptime);
}

Sample lastSample() {
  const std::lock_guard<std::mutex> guard(sampleLock);
  return sample;
}

struct Interface {
  char name[64];
  unsigned long long rxBytes, txBytes;
};

std::vector<Interface> readInterfaces() {
  std::vector<Interface> all;
  std::istringstream table(readFile("/proc/net/dev"));
  for (std::string line; std::getline(table, line);) {
    Interface one;
    const int fields = std::sscanf(line.c_str(), " %63[^:]: %llu %*u %*u %*u %*u %*u %*u %*u %llu", one.name,
                                   &one.rxBytes, &one.txBytes);
    if (fields == 3) all.push_back(one);  // the two lines of headings give fewer
  }
  return all;
}

// ---- kep: items and faults; everything below runs on the serving thread once it serves

CollectItem *systemItem, *memoryItem, *networkItem, *faultItem;
ZuFault *memoryFault, *networkFault;

int32_t collectSystem(int32_t requestType) {
  if (requestType == kFaultFile) return 0;
  const Sample now = lastSample();
  Collect_PutInt(systemItem, 1, now.uptime);
  Collect_PutInt(systemItem, 2, now.processes);
  uint8_t loads[12];  // a struct is packed, so that every server reads the same bytes
  ZuBuffer_Pack(loads, "III", now.load[0], now.load[1], now.load[2]);
  Collect_PutStruct(systemItem, 3, loads, sizeof loads);
  return 0;
}

int32_t testSystem(int32_t) {
  Collect_PutInt(systemItem, 1, lastSample().count > 0);
  return 0;
}

int32_t collectMemory(int32_t requestType) {
  if (requestType == kFaultFile) return 0;
  Collect_PutLong(memoryItem, 1, lastSample().freeBytes);
  Collect_PutString(memoryItem, 2, readFile("/proc/meminfo").c_str(), 0);  // longer than one message
  ZuFault_SetRunLog(memoryFault, 1, 0, ZuString_SFormat("%d samples so far", static_cast<int>(lastSample().count)));
  return 0;
}

int32_t testMemory(int32_t) {
  Collect_PutString(memoryItem, 1, readFile("/proc/meminfo").empty() ? "no /proc/meminfo" : "ok", 0);
  return 0;
}

int32_t collectNetwork(int32_t requestType) {
  if (requestType == kFaultFile) return 0;
  int32_t section = 0;
  for (const Interface &one : readInterfaces()) {
    Collect_BeginSection(networkItem, ++section);
    Collect_PutString(networkItem, 1, one.name, 0);
    Collect_PutLong(networkItem, 2, static_cast<int64_t>(one.rxBytes));
    Collect_PutLong(networkItem, 3, static_cast<int64_t>(one.txBytes));
    Collect_EndSection(networkItem);
  }
  return 0;
}

int32_t testNetwork(int32_t) {
  Collect_PutInt(networkItem, 1, static_cast<int32_t>(readInterfaces().size()));
  return 0;
}

int32_t collectFaults(int32_t requestType) {
  ZuFault *const faults[] = {memoryFault, networkFault};
  for (int32_t section = 1; requestType == kWithLogs && section <= 2; ++section) {
    Collect_BeginSection(faultItem, section);
    Collect_PutInitLog(faultItem, 1, faults[section - 1]);
    Collect_PutRunLog(faultItem, 2, faults[section - 1]);
    Collect_EndSection(faultItem);
  }
  if (requestType == kFaultFile) {
    ZuFault_Start();
    ZuMem_Show();
    Collect_PutInt(faultItem, 3, ZuList_Length(g_ZuFault_List));
  }
  return 0;
}

int32_t testFaults(int32_t) {
  Collect_PutInt(faultItem, 1, ZuList_Length(g_ZuFault_List));
  return 0;
}

void saveMemory() {
  const Sample now = lastSample();
  ZuFault_SetRegist(memoryFault, 0x10, static_cast<uint32_t>(sysconf(_SC_PAGESIZE)));
  ZuFault_SetRegist64(memoryFault, 0x11, static_cast<uint64_t>(now.freeBytes));
  ZuFault_SetCounter(memoryFault, 1, static_cast<uint32_t>(now.count));
  const std::string memory = readFile("/proc/meminfo");
  ZuFault_SetValue(memoryFault, 1, memory.data(), static_cast<int32_t>(memory.size()));
}

void saveNetwork() {
  uint32_t id = 0;
  for (const Interface &one : readInterfaces()) {
    ZuFault_SetCounter64(networkFault, ++id, one.rxBytes + one.txBytes);
    ZuFault_SetCounterEx(networkFault, id, one.name, static_cast<int32_t>(std::strlen(one.name)));
  }
}

// Anybody can send a request; who is refused here gets no connection.
int32_t isWelcome(const char *address, int32_t port, int32_t) {
  return port >= 1024 && (std::strncmp(address, "127.", 4) == 0 || std::strncmp(address, "10.", 3) == 0);
}

void serve() {
  Collect_SetAccess(isWelcome);
  CollectClient_SetTimeout(2000, 2000, 5000);  // or a server that falls silent would hold the service for ever
  Collect_Init(kIdentity);                     // returns only when the port cannot be had
  std::perror("kep-board: cannot serve on UDP port 9099");
  std::_Exit(EXIT_FAILURE);
}

}  // namespace

int main() {
  takeSample();
  systemItem = Collect_New("system", collectSystem, testSystem);
  memoryItem = Collect_New("memory", collectMemory, testMemory);
  networkItem = Collect_New("network", collectNetwork, testNetwork);
  faultItem = Collect_New("faults", collectFaults, testFaults);
  memoryFault = ZuFault_Regist("memory", saveMemory);
  networkFault = ZuFault_Regist("network", saveNetwork);
  ZuFault_SetInitLog(memoryFault, 1, 0, "sampling once a second");
  ZuFault_SetInitLog(networkFault, 1, 0, "reading /proc/net/dev");
  std::thread(serve).detach();
  for (;;) {  // host work, without kep; SIGINT or SIGTERM ends the process as they end any other
    sleep(1);
    takeSample();
  }
}
