// Whole runs against a server: every message and every line of the log, when all goes well.
#include <gtest/gtest.h>
#include <kep/kep.h>

#include <array>

#include "collection/server.hpp"
#include "support/platform_double.hpp"

namespace {

using wire::Stream;

ZuFault *fault;
CollectItem *figures, *logs;

constexpr size_t kUsual = 3000, kFlood = 400000;  // sizes of a text: a few messages, more than a socket holds
size_t textSize = kUsual;

std::string longText(size_t size = textSize) {
  std::string text;
  for (int i = 0; text.size() < size; ++i) text += std::to_string(i) + ' ';
  return text.substr(0, size);
}

int32_t collectFigures(int32_t type) {
  Collect_BeginSection(figures, 5);
  Collect_PutInt(figures, 1, type);
  Collect_PutLong(figures, 2, INT64_MIN + 2);
  Collect_EndSection(figures);
  Collect_PutString(figures, 3, "text", 2);
  Collect_PutString(figures, 3, "", 0);
  Collect_PutString(figures, 4, longText().c_str(), 0);
  Collect_PutStruct(figures, 5, "\x80\0\x01", 3);
  Collect_PutStruct(figures, 6, longText().data(), 1500);
  return 0;
}

int32_t reportNothing(int32_t) { return 0; }

int32_t collectLogs(int32_t) {
  Collect_PutInitLog(logs, 7, fault);
  Collect_PutRunLog(logs, 8, fault);
  return 0;
}

int32_t testFigures(int32_t argument) {
  Collect_PutInt(figures, 9, argument);
  Collect_PutString(figures, 4, longText().c_str(), 0);
  return 0;
}

// What changes from day to day, made letters.
std::string withoutTimes(std::string text) {
  const std::string time = "MM/DD HH:MI:SS";
  for (size_t at = 0; at + time.size() <= text.size(); ++at) {
    if (text[at + 2] != '/' || text[at + 5] != ' ' || text[at + 8] != ':' || text[at + 11] != ':') continue;
    text.replace(at, time.size(), time);
    if (at >= 3 && text[at - 1] == '/') text.replace(at - 3, 2, "YY");
    if (at >= 5 && text.compare(at - 5, 2, "20") == 0) text.replace(at - 5, 2, "YY");
  }
  return text;
}

std::vector<std::string> withoutTimes(std::vector<std::string> messages) {
  for (std::string &message : messages) message = withoutTimes(message);
  return messages;
}

// The service's log, which is emptied. Nothing of it may have been echoed before.
std::string takeLog() {
  EXPECT_EQ(platform::takePrinted(), "");
  Collect_ShowLog();
  ZuLogger_ClearInfo(g_collect_param.logger);
  return withoutTimes("\n" + platform::takePrinted());
}

std::string line(const std::string &text) { return "YYYY/MM/DD HH:MI:SS\n" + text + "\n"; }
std::string itemLine(const std::string &text) { return line("YY/MM/DD HH:MI:SS " + text + "\n"); }

std::string around(const std::string &item) { return itemLine(item + "begin...") + itemLine(item + "end"); }

// What a run sends and logs when all goes well. It looks only here and there whether its messages go through.
struct Plan {
  explicit Plan(int32_t sequence) : stream(sequence) {
    stream.append(std::string("\xAB\xCD\0\0", 4));
    stream.flush(77);
  }

  void flushAndCheck(const std::string &logged) {
    stream.flush();
    checks.push_back({size(), logged});
  }
  size_t size() const { return stream.messages().size(); }

  struct Check {
    size_t message;      // the one that it looks at
    std::string logged;  // since the last look
  };

  Stream stream;
  std::vector<Check> checks;
};

Plan planCollection(int32_t sequence) {
  Plan plan(sequence);
  Stream &run = plan.stream;
  run.setType(1);
  for (const char *entry : {"\0figures", "\1no collect", "\2a name longer than ", "\3logs"}) {
    run.append(wire::word(*entry) + wire::counted(entry + 1));
  }
  plan.flushAndCheck("");
  run.setType(2);
  run.putInt(0, 5, 1, 2);
  run.putLong(0, 5, 2, INT64_MIN + 2);
  run.putString(0, 0, 3, "te");
  run.putString(0, 0, 4, longText());
  run.putBuffer(0, 0, 5, std::string("\x80\0\x01", 3));
  run.putBuffer(0, 0, 6, longText(1500));
  plan.flushAndCheck(around("[figures] "));
  plan.flushAndCheck(around("[a name longer than ] "));  // it reports nothing
  for (const char *text : {"MM/DD HH:MI:SS", "up", "MM/DD HH:MI:SS", ""}) run.putString(3, 0, 7, text);
  for (const std::string &text : {std::string("MM/DD HH:MI:SS"), longText(kUsual)}) run.putString(3, 0, 8, text);
  plan.flushAndCheck(around("[logs] "));
  run.flush();
  return plan;
}

Plan planSelfTest(int32_t sequence) {
  Plan plan(sequence);
  Stream &run = plan.stream;
  run.setType(2);
  run.putString(0xFFFF, 0, 0, "figures");
  run.putInt(0, 0, 9, 0);
  run.putString(0, 0, 4, longText());
  plan.flushAndCheck(around("[figures] selftest "));
  run.putString(0xFFFF, 0, 0, "no collect");
  plan.flushAndCheck(around("[no collect] selftest "));
  run.flush();
  return plan;
}

// How a run ends whose messages fail from this one on; 0: which finds no server.
struct Outcome {
  Outcome(const Plan &plan, size_t failsAt) {
    if (failsAt == 0) {
      text = "connect error.\n";
      log += line("connect to server fail.");
      return;
    }
    tried = plan.size();
    result = 1;
    for (const Plan::Check &check : plan.checks) {
      log += check.logged;
      if (check.message < failsAt) continue;
      log += line("flush to server fail.");
      tried = check.message;
      result = 0;
      break;
    }
    for (size_t i = failsAt; i <= tried; ++i) text += i == failsAt ? "recv error.\n" : "send error.\n";
  }

  int32_t result = 0;
  size_t tried = 0;  // messages that the run tried to send
  std::string text, log = "\n";
};

struct Kind {
  int32_t (*run)(int32_t port);
  Plan (*plan)(int32_t sequence);
};

const Kind kCollection = {[](int32_t port) { return Collect_Start("127.0.0.1", port, 2, 77, 0xAB, 0xCD); },
                          planCollection};
const Kind kSelfTest = {[](int32_t port) { return Collect_SelfTest("127.0.0.1", port, 77, 0xAB, 0xCD); }, planSelfTest};

enum Limit { kNoLimit, kConnect, kSend, kAck };

constexpr size_t kAll = SIZE_MAX;
constexpr size_t kNever = SIZE_MAX;

struct Peer {
  const char *name;
  Manner manner;
  size_t arrives = kAll;    // messages that it gets
  size_t failsAt = kNever;  // the first message that fails; 0: connecting does
  bool failsLater = false;  // or a later one: it takes a while until a closing is noticed, or a socket is full
  Limit limit = kNoLimit;   // the one without which the run would never end
};

std::vector<Peer> peersFor(size_t messages) {
  std::vector<Peer> peers = {
      {"answers", {}},
      {"refuses", {0, Manner::kRefuses}, 0, 0},
      {"never accepts", {0, Manner::kNeverAccepts}, 0, 0, false, kConnect},
      {"closes at once", {0, Manner::kClosesAtOnce}, 0, 1, true},
      {"acknowledges with 1 byte", {0, Manner::kResets, 1}},
      {"acknowledges with 16 bytes", {0, Manner::kResets, 16}},
      {"acknowledges with 17 bytes", {0, Manner::kResets, 17}},
      {"acknowledges byte by byte", {0, Manner::kResets, 16, true}},
      {"reads byte by byte", {0, Manner::kResets, 4, false, 0}},
      {"reads a byte a second", {0, Manner::kResets, 4, false, 1000}, 1, 1, false, kAck},
      {"acknowledges three messages at once", {2, Manner::kFallsSilent, 33}, 4, 4, false, kAck},
      {"acknowledges all at once and reads no more", {1, Manner::kStopsReading, kFlood / 32}, 1, 2, true, kSend},
  };
  for (size_t k = 1; k <= messages; ++k) {
    peers.push_back({"resets", {k, Manner::kResets}, k, k});
    peers.push_back({"closes", {k, Manner::kCloses}, k, k + 1, true});
    peers.push_back({"acknowledges and closes", {k, Manner::kAcksAndCloses}, k, k + 1, true});
    peers.push_back({"shuts down", {k, Manner::kShutsDown}});
    peers.push_back({"falls silent", {k, Manner::kFallsSilent}, k, k, false, kAck});
  }
  return peers;
}

// A limit to run into, or limits that nothing reaches; one for connecting must not touch what has none.
void setLimits(const Peer &peer) {
  const int32_t ample = 60000, others = peer.limit == kNoLimit ? ample : 0;
  const auto limit = [&](Limit which, int32_t otherwise) { return peer.limit == which ? 50 : otherwise; };
  CollectClient_SetTimeout(limit(kConnect, ample), limit(kSend, others), limit(kAck, others));
}

enum { kFinishedRuns = 3, kFailedRuns, kMessages };
using Counters = std::array<uint32_t, 6>;

Counters counters() {
  CollectStats stats;
  Collect_GetStats(&stats);
  return {stats.datagrams, stats.dropped, stats.refused, stats.finishedRuns, stats.failedRuns, stats.messages};
}

// Descriptors, blocks and bytes.
using Holdings = std::array<int64_t, 3>;

Holdings holdings() { return {openDescriptors(), platform::liveBlocks(), platform::liveBytes()}; }

class Driver : public testing::Test {
 protected:
  Driver() {
    if (!fault) {
      fault = ZuFault_Regist("fault", nullptr);
      ZuFault_SetInitLog(fault, 1, 0, "up");
      ZuFault_SetInitLog(fault, 1, 0, "");
      ZuFault_SetRunLog(fault, 3, 0, longText().c_str());
    }
    g_collect_param.logger = ZuLogger_New(255);
    figures = Collect_New("figures", collectFigures, testFigures);
    Collect_New("no collect", nullptr, reportNothing);
    Collect_New("a name longer than its field", reportNothing, nullptr);
    logs = Collect_New("logs", collectLogs, nullptr);
    platform::takePrinted();
  }
  ~Driver() override {
    CollectClient_End();
    CollectClient_SetTimeout(0, 0, 0);
    while (g_collect_param.count > 0) Collect_Release(g_collect_param.items[0]);
    ZuLogger_Release(g_collect_param.logger);
    g_collect_param.logger = nullptr;
  }

  // One run against this peer: its result, texts, log and messages, what it counts and what it holds afterwards.
  void meet(const Peer &peer, const Kind &kind) {
    if (limited_) setLimits(peer);
    textSize = peer.limit == kSend ? kFlood : kUsual;
    const Plan plan = kind.plan(sequence_);
    Counters expected = counters();
    StdoutCapture output;
    std::vector<std::string> arrived;
    int32_t result;
    {
      Server server(peer.manner);
      result = kind.run(server.port());
      arrived = withoutTimes(server.messages());
      EXPECT_TRUE(!isPatient(peer.manner) || !server.wasHurried());
    }
    textSize = kUsual;
    // How many messages seem to go through is for the system to say when the peer closed or its socket is full.
    size_t failsAt = peer.failsAt;
    if (peer.failsLater) failsAt = counters()[kMessages] - expected[kMessages] + 1;
    EXPECT_GE(failsAt, peer.failsAt);
    Outcome outcome(plan, failsAt);
    if (peer.failsLater && failsAt > 1 && !outcome.text.empty()) outcome.text.replace(0, 4, "send");
    EXPECT_EQ(result, outcome.result);
    EXPECT_TRUE(result == 0 || peer.limit == kNoLimit || failsAt == plan.size()) << "nothing held it up";
    EXPECT_EQ(output.take(), outcome.text);
    EXPECT_EQ(takeLog(), outcome.log);
    std::vector<std::string> messages = plan.stream.messages();
    messages.resize(std::min(peer.arrives, messages.size()));
    EXPECT_EQ(arrived, messages);
    ++expected[result == 1 ? kFinishedRuns : kFailedRuns];
    expected[kMessages] += static_cast<uint32_t>(std::min(failsAt - (failsAt > 0), outcome.tried));
    EXPECT_EQ(counters(), expected);
    EXPECT_EQ(holdings(), heldAfter(peer, outcome));
    if (outcome.tried > 0) sequence_ += static_cast<int32_t>(outcome.tried) - 1;  // the first has the request's
  }

  // After each peer a good one, byte for byte; then nothing is left of either.
  void meetThemAll(const Kind &kind) {
    kind.run(Server().port());  // makes the log's store
    takeLog();
    sequence_ = lastSequence();
    flat_ = holdings();
    const size_t messages = kind.plan(0).size();
    for (const bool limited : {false, true}) {
      limited_ = limited;
      for (const Peer &peer : peersFor(messages)) {
        if (!limited_ && peer.limit != kNoLimit) continue;
        SCOPED_TRACE(std::string(peer.name) + " at " + std::to_string(peer.manner.endsAt) +
                     (limited_ ? ", limited" : ""));
        meet(peer, kind);
        meet({"is good", {}}, kind);
        if (HasFailure()) return;
      }
    }
  }

 private:
  // Whether it gives the client no reason to send a message before the one in front is acknowledged.
  static bool isPatient(const Manner &manner) {
    return manner.ackSize <= 16 && !manner.acksBytewise && manner.ending != Manner::kShutsDown;
  }

  // A broken run leaves its send buffer to the next one, and its connection unless a limit has made an end of that.
  Holdings heldAfter(const Peer &peer, const Outcome &outcome) const {
    if (outcome.result == 1 || outcome.tried == 0) return flat_;
    return {flat_[0] + (peer.limit == kNoLimit), flat_[1] + 1, flat_[2] + 1036 + 4};
  }

  int32_t sequence_ = 0;
  bool limited_ = false;
  Holdings flat_;
};

TEST_F(Driver, CollectsFromEveryKindOfPeer) { meetThemAll(kCollection); }

TEST_F(Driver, SelfTestsForEveryKindOfPeer) { meetThemAll(kSelfTest); }

TEST_F(Driver, SendsAnEmptyCatalogueWhenThereAreNoItems) {
  while (g_collect_param.count > 0) Collect_Release(g_collect_param.items[0]);
  Server server;
  EXPECT_EQ(kCollection.run(server.port()), 1);
  EXPECT_EQ(server.payloadSizes(), (std::vector<size_t>{4, 0, 0}));
}

TEST_F(Driver, SendsNothingForNothing) {
  ZuFault *silent = ZuFault_Regist("silent", nullptr);
  const auto putEverything = [](CollectItem *item) {
    Collect_BeginSection(item, 1);
    Collect_EndSection(item);
    Collect_PutInt(item, 1, 1);
    Collect_PutLong(item, 1, 1);
    Collect_PutString(item, 1, "x", 1);
    Collect_PutStruct(item, 1, "x", 1);
    Collect_PutInitLog(item, 1, fault);
    Collect_PutRunLog(item, 1, fault);
  };
  putEverything(figures);  // outside a run
  Server server;
  ASSERT_EQ(CollectClient_Start("127.0.0.1", server.port()), 1);
  putEverything(nullptr);
  Collect_PutString(figures, 1, nullptr, 1);
  Collect_PutString(figures, 1, "x", -1);
  Collect_PutStruct(figures, 1, nullptr, 1);
  Collect_PutStruct(figures, 1, "x", 0);
  Collect_PutStruct(figures, 1, "x", -1);
  Collect_PutInitLog(figures, 1, nullptr);
  Collect_PutRunLog(figures, 1, silent);
  CollectClient_End();
  EXPECT_EQ(server.payloadSizes(), std::vector<size_t>{0});
}

TEST_F(Driver, NumbersItemsDensely) {
  CollectItem *second = g_collect_param.items[1], *third = g_collect_param.items[2];
  CollectItem copy = *figures;
  Collect_Release(&copy);  // not the one registered there
  Collect_Release(nullptr);
  EXPECT_EQ(g_collect_param.count, 4);
  Collect_Release(figures);
  EXPECT_EQ(g_collect_param.count, 3);
  EXPECT_EQ(second->index, 0);
  EXPECT_EQ(third->index, 1);
  EXPECT_EQ(g_collect_param.items[2], logs);
  EXPECT_EQ(logs->index, 2);

  EXPECT_EQ(Collect_New(nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(Collect_New("", nullptr, nullptr), nullptr);
  while (g_collect_param.count < 19) ASSERT_NE(Collect_New("filler", nullptr, nullptr), nullptr);
  EXPECT_EQ(Collect_New("one too many", nullptr, nullptr), nullptr);
  Collect_Release(second);
  const CollectItem *last = Collect_New("1234567890123456789", nullptr, nullptr);
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->index, 18);
  EXPECT_EQ(last->section, 0);
  EXPECT_STREQ(last->name, "1234567890123456789");
}

}  // namespace
