// served.cpp: boards that behave, many to a process, served by the library as a host with a poll loop of its own does.
//
// A board tells, by request type: 0, figures; 1, the same, its log and the logs of its fault; 2, nothing, as a fleet
// that is played has no fault file. Its numbers move when it is asked, so that one that nobody asks takes no time:
// 20 constants (limits), 20 gauges that move by up to 1 % (sensors), 20 counters (five on each of four ports).
#include <kep/kep.h>
#include <sys/epoll.h>

#include <cstring>
#include <ctime>

#include "plan.hpp"

namespace {

constexpr int32_t kWithLogs = 1, kFaultFile = 2;  // request types
constexpr uint32_t kAskedAMode = 20;              // so often a board is asked before it changes its mode
constexpr int kPorts = 4, kCounters = 5;          // of each port
constexpr uint32_t kRates[kCounters] = {250000, 90000, 400, 300, 2};  // most in a second
constexpr int kIncidents = 8;                                         // kept of each board, the last ones
constexpr int32_t kRailGood = 5012, kRailBad = 4310;                  // millivolts

// Where the sensors begin: 8 temperatures, 6 rails, 4 fans, a current, the humidity. Limits are a quarter higher.
constexpr int32_t kBases[] = {4120, 3980, 4510, 6230, 5870, 3450, 3310, 2840, 12020, 5010,
                              3310, 1805, 1202, 903,  4210, 4180, 6120, 6090, 2350,  4730};
constexpr int kSensors = sizeof kBases / sizeof kBases[0];

struct Incident {
  int64_t time;
  const char *text;  // nullptr: none yet
  bool isOfSupply;
};

struct Board {
  uint32_t number, random;
  int64_t started, lastAsked;  // seconds since 1970
  uint32_t timesAsked;
  bool isBroken, isOnBattery;
  int32_t sensors[kSensors];
  int64_t counters[kPorts][kCounters];
  Incident incidents[kIncidents];
  uint32_t incidentCount;
};

const Plan *plan;
Board *current;  // the one that is asked
CollectItem *systemItem, *sensorItem, *limitItem, *portItem, *logItem;

// ---- a board's life

// The same numbers for the same board, whenever it is played.
uint32_t draw(Board *board, uint32_t below) {
  board->random = board->random * 1664525U + 1013904223U;
  const uint64_t random = board->random;
  return static_cast<uint32_t>(random * below >> 32);
}

void note(Board *board, int64_t now, const char *text, bool isOfSupply) {
  board->incidents[board->incidentCount++ % kIncidents] = {now, text, isOfSupply};
}

Board newBorn(uint32_t number) {
  Board board = {};
  board.number = number;
  board.random = number * 2654435761U;
  board.started = board.lastAsked = std::time(nullptr);
  std::memcpy(board.sensors, kBases, sizeof kBases);
  for (auto &port : board.counters) {
    for (int i = 0; i < kCounters; ++i) port[i] = draw(&board, 10000 * kRates[i]);
  }
  note(&board, board.started, "started", false);
  return board;
}

void moveNumbers(Board *board, int64_t seconds) {
  for (int i = 0; i < kSensors; ++i) {
    int32_t &value = board->sensors[i];
    const int32_t range = value / 100;
    value += static_cast<int32_t>(draw(board, static_cast<uint32_t>(2 * range + 1))) - range;
    if (value > kBases[i] / 5 * 6 || value < kBases[i] / 5 * 4) value = kBases[i];
  }
  for (auto &port : board->counters) {
    for (int i = 0; i < kCounters; ++i) port[i] += seconds * draw(board, kRates[i]);
  }
}

void live(Board *board) {
  const int64_t now = std::time(nullptr);
  moveNumbers(board, now - board->lastAsked);
  board->lastAsked = now;
  if ((++board->timesAsked + board->number) % kAskedAMode == 0) {
    board->isOnBattery = !board->isOnBattery;
    note(board, now, board->isOnBattery ? "mains lost, on battery" : "back on mains", false);
  }
  const bool isBroken = (plan->stateOf(board->number).load(std::memory_order_relaxed) & kIsBroken) != 0;
  if (isBroken == board->isBroken) return;
  board->isBroken = isBroken;
  note(board, now, isBroken ? "5 V rail below its limit" : "5 V rail is good again", true);
}

// ---- what it tells

int32_t collectSystem(int32_t requestType) {
  if (requestType == kFaultFile) return 0;
  const Board &board = *current;
  uint8_t hardware[8];
  ZuBuffer_Pack(hardware, "BBHI", 3, board.number % 4, 2408, 500000 + board.number);
  Collect_PutString(systemItem, 1, plan->nameOf(board.number).c_str(), 0);
  Collect_PutString(systemItem, 2, board.number % 10 == 0 ? "2.3.9" : "2.4.1", 0);
  Collect_PutInt(systemItem, 3, board.isOnBattery);
  Collect_PutInt(systemItem, 4, board.isBroken);
  Collect_PutInt(systemItem, 5, static_cast<int32_t>(board.lastAsked - board.started));
  Collect_PutStruct(systemItem, 6, hardware, sizeof hardware);
  return 0;
}

int32_t testSystem(int32_t) {
  Collect_PutString(systemItem, 1, "2.4.1", 0);
  return 0;
}

int32_t collectSensors(int32_t requestType) {
  const int count = requestType == kFaultFile ? 0 : plan->isSmall ? 3 : kSensors;
  for (int i = 0; i < count; ++i) Collect_PutInt(sensorItem, i + 1, current->sensors[i]);
  return 0;
}

int32_t testSensors(int32_t) {
  Collect_PutInt(sensorItem, 1, current->isBroken ? kRailBad : kRailGood);
  Collect_PutInt(sensorItem, 2, 1);
  return 0;
}

int32_t collectLimits(int32_t requestType) {
  const int count = requestType == kFaultFile ? 0 : kSensors;
  for (int i = 0; i < count; ++i) Collect_PutInt(limitItem, i + 1, kBases[i] / 4 * 5);
  return 0;
}

int32_t collectPorts(int32_t requestType) {
  const int count = requestType == kFaultFile ? 0 : kPorts;
  for (int port = 0; port < count; ++port) {
    Collect_BeginSection(portItem, port + 1);
    Collect_PutString(portItem, 1, ZuString_SFormat("eth%d", port), 0);
    for (int i = 0; i < kCounters; ++i) Collect_PutLong(portItem, i + 2, current->counters[port][i]);
    Collect_EndSection(portItem);
  }
  return 0;
}

void putLine(int32_t key, const char *timePattern, const Incident &incident) {
  char time[64];
  ZuTime_Format(time, timePattern, incident.time);
  Collect_PutString(logItem, key, time, 0);
  Collect_PutString(logItem, key, incident.text, 0);
}

// A log is what the library's own loggers would send: in turn the time and the text of each line.
int32_t collectLogs(int32_t requestType) {
  if (requestType != kWithLogs) return 0;
  const Board &board = *current;
  const Incident watching = {board.started, "watching the 5 V rail", true};
  for (int32_t section = 0; section <= 1; ++section) {
    Collect_BeginSection(logItem, section);
    if (section == 1) putLine(2, "MM/DD HH:MI:SS", watching);
    for (uint32_t i = 0; i < kIncidents; ++i) {
      const Incident &incident = board.incidents[(board.incidentCount + i) % kIncidents];
      if (!incident.text || (section == 1 && !incident.isOfSupply)) continue;
      putLine(section == 0 ? 1 : 3, section == 0 ? "YYYY/MM/DD HH:MI:SS" : "MM/DD HH:MI:SS", incident);
    }
    Collect_EndSection(logItem);
  }
  return 0;
}

// ---- the process

void setUpService() {
  CollectClient_SetTimeout(2000, 2000, 2000);  // a server that falls silent holds up the boards of this process
  CollectClient_SetTrace(0);
  systemItem = Collect_New("system", collectSystem, testSystem);
  sensorItem = Collect_New("sensors", collectSensors, testSensors);
  if (!plan->isSmall) {
    limitItem = Collect_New("limits", collectLimits, nullptr);
    portItem = Collect_New("ports", collectPorts, nullptr);
  }
  logItem = Collect_New("logs", collectLogs, nullptr);
}

// As no request socket is the library's own, its connections leave from the address set last: the board's.
void serveOne(Board *board, int fd) {
  uint32_t type;
  char server[16];
  int32_t port;
  const int32_t sequence = CollectClient_WaitFor(fd, 0, 0, &type, server, &port);
  if (sequence == -1 || plan->isAway(board->number)) return;
  current = board;
  live(board);
  Collect_SetAddress(plan->addressOf(board->number).c_str(), plan->port);
  constexpr uint8_t kId0 = kIdentity >> 8, kId1 = kIdentity & 0xFF;
  if (type == COLLECTCLIENT_SELFTEST) {
    Collect_SelfTest(server, port, sequence, kId0, kId1);
  } else {
    Collect_Start(server, port, static_cast<int32_t>(type), sequence, kId0, kId1);
  }
}

}  // namespace

void playServed(const Plan &thePlan, const std::vector<uint32_t> &numbers, int ready) {
  plan = &thePlan;
  setUpService();
  std::vector<Board> boards;
  std::vector<int> fds;
  boards.reserve(numbers.size());
  for (const uint32_t number : numbers) {
    boards.push_back(newBorn(number));
    fds.push_back(openBoard(thePlan, number));
  }
  const int poll = watch(fds);
  tellReady(ready);
  for (;;) {
    epoll_event events[64];
    const int count = epoll_wait(poll, events, 64, -1);
    for (int i = 0; i < count; ++i) serveOne(&boards[events[i].data.u32], fds[events[i].data.u32]);
  }
}
