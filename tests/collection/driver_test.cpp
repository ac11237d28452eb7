// Whole runs against servers of every kind, and what is left out of them.
#include "collection/runs.hpp"
#include "support/platform_double.hpp"

namespace {

enum Limit { kNoLimit, kConnect, kSend, kAck };

struct Peer {
  const char *name;
  Manner manner;
  Fates fates = ".";
  bool breaksLater = false;  // it takes a while until a closing is noticed, or a socket is full
  Limit limit = kNoLimit;    // the one without which the run would never end
};

constexpr size_t kFlood = 400000;  // more than a socket holds

std::vector<Peer> peersFor(size_t messages) {
  std::vector<Peer> peers = {
      {"answers", {}},
      {"refuses", {0, Manner::kRefuses}, "c"},
      {"never accepts", {0, Manner::kNeverAccepts}, "c", false, kConnect},
      {"closes at once", {0, Manner::kClosesAtOnce}, "s", true},
      {"acknowledges with 1 byte", {0, Manner::kResets, 1}},
      {"acknowledges with 16 bytes", {0, Manner::kResets, 16}},
      {"acknowledges with 17 bytes", {0, Manner::kResets, 17}},
      {"acknowledges two messages at once", {2, Manner::kFallsSilent, 32}, "..rs", false, kAck},
      {"acknowledges three messages at once", {2, Manner::kFallsSilent, 33}, "...rs", false, kAck},
      {"acknowledges all at once and reads no more", {1, Manner::kStopsReading, kFlood / 32}, ".s", true, kSend},
  };
  for (size_t k = 1; k <= messages; ++k) {
    peers.push_back({"resets", {k, Manner::kResets}, Fates(k - 1, '.') + "rs"});
    peers.push_back({"closes", {k, Manner::kCloses}, Fates(k - 1, '.') + "es", true});
    peers.push_back({"falls silent", {k, Manner::kFallsSilent}, Fates(k - 1, '.') + "rs", false, kAck});
  }
  return peers;
}

// A limit to run into, which a server that answers keeps on a busy machine as well, or limits that nothing reaches; one
// for connecting must not touch what has none.
void setLimits(Limit met) {
  const int32_t ample = 60000, others = met == kNoLimit ? ample : 0;
  const auto limit = [&](Limit which, int32_t otherwise) { return met == which ? 300 : otherwise; };
  CollectClient_SetTimeout(limit(kConnect, ample), limit(kSend, others), limit(kAck, others));
}

TEST_F(Runs, RunsAgainstEveryKindOfPeer) {
  for (const bool limited : {false, true}) {
    for (const int32_t type : {2, host::kSelfTest}) {
      for (const Peer &peer : peersFor(sizeOf(type))) {
        if (!limited && peer.limit != kNoLimit) continue;
        SCOPED_TRACE(testing::Message() << peer.name << " at " << peer.manner.endsAt << ", type " << type
                                        << (limited ? ", limited" : ""));
        if (limited) setLimits(peer.limit);
        if (peer.limit == kSend) host::setContent(0, kFlood);
        const int32_t result = meet(type, peer.manner, peer.fates, peer.breaksLater);
        EXPECT_FALSE(peer.limit == kSend && result == 1) << "nothing held it up";
        host::setContent(0);
        if (limited) setLimits(kNoLimit);
        recover(type);
        if (HasFailure()) return;
      }
    }
  }
}

TEST_F(Runs, SendsNothingForNothingNorOutsideARun) {
  CollectItem *const figures = host::figures;
  const auto putEverything = [](CollectItem *item, const char *text) {
    Collect_BeginSection(item, 1);
    Collect_EndSection(item);
    Collect_PutInt(item, 1, 1);
    Collect_PutLong(item, 1, 1);
    Collect_PutString(item, 1, "x", 1);
    Collect_PutStruct(item, 1, "x", 1);
    Collect_PutInitLog(item, 1, host::fault);
    Collect_PutRunLog(item, 1, host::fault);
    Collect_PutLog(item, 1, item ? g_collect_param.logger : nullptr);
    CollectClient_AppendString(text);
    CollectClient_AppendBuffer(text, 1);
    EXPECT_EQ(CollectClient_CollectString(1, 2, 3, text, 1), 0);
    EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 3, text, 1), 0);
  };
  StdoutCapture output;
  putEverything(figures, "x");
  CollectClient_SetType(1);
  EXPECT_EQ(CollectClient_AppendInt(1), 0);
  EXPECT_EQ(CollectClient_Flush(1), 0);
  CollectClient_End();
  EXPECT_EQ(output.take(), "");

  Server server, another;
  ASSERT_EQ(CollectClient_Start("127.0.0.1", server.port()), 1);
  putEverything(nullptr, nullptr);
  CollectClient_AppendBuffer("x", -1);
  for (const int32_t length : {1, 0, -1}) {
    Collect_PutString(figures, 1, length < 0 ? "x" : nullptr, length);
    Collect_PutStruct(figures, 1, length < 1 ? "x" : nullptr, length);
  }
  EXPECT_EQ(CollectClient_CollectString(1, 2, 3, "x", -1), 0);
  Collect_PutInitLog(figures, 1, nullptr);
  Collect_PutRunLog(figures, 1, ZuFault_Regist("silent", nullptr));
  CollectClient_End();
  EXPECT_EQ(server.messages().at(0).size(), 12U);
  host::releaseItems();
  EXPECT_EQ(host::start(1, another.port(), 1), 1);
  EXPECT_EQ(another.messages().at(1).size(), 12U);  // an empty catalogue
}

TEST_F(Runs, ShowsNothingWithoutTraceAndKeepsItsLogAsLongAsItIsTold) {
  ZuLogger_Release(g_collect_param.logger);
  g_collect_param.logger = ZuLogger_New(ZULOGGER_ACCEPT_ALL | ZULOGGER_KEEP | ZULOGGER_ECHO);
  Collect_SetLogSize(1);
  for (const int32_t on : {0, 1}) {
    CollectClient_SetTrace(on);
    StdoutCapture output;
    for (int i = 0; i < 60; ++i) host::start(0, closedPort(), 1);
    EXPECT_EQ(output.take().find("connect error.") == std::string::npos, on == 0);
    EXPECT_EQ(platform::takePrinted().empty(), on == 0);
    Collect_ShowLog();
    const std::string log = platform::takePrinted();
    EXPECT_TRUE(log.size() > 800 && log.size() < 1024) << log;
    Collect_SetLogSize(0);  // too late
  }
}

TEST_F(Runs, HasRoomForNineteenItems) {
  CollectItem copy = *host::figures;
  Collect_Release(&copy);  // not the one registered there
  Collect_Release(nullptr);
  EXPECT_EQ(g_collect_param.count, 4);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Collect_New(nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(Collect_New("", nullptr, nullptr), nullptr);
  while (g_collect_param.count < 18) ASSERT_NE(Collect_New("filler", nullptr, nullptr), nullptr);
  const CollectItem *last = Collect_New("1234567890123456789", nullptr, nullptr);
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->index + last->section, 18);
  EXPECT_STREQ(last->name, "1234567890123456789");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Collect_New("one too many", nullptr, nullptr), nullptr);
  std::string said;
#ifndef NDEBUG
  said =
      "kep: two collection items are named filler\nkep: one too many is collection item 20, and there are 19 at most\n";
#endif
  EXPECT_EQ(testing::internal::GetCapturedStderr(), said);
}

// ---- items that come and go

CollectItem *items[4];
std::string called;
bool onAnotherThread;

template <int kIndex>
int32_t report(int32_t);

void exchangeItems() {
  for (const int i : {0, 1, 0}) Collect_Release(items[i]);
  items[3] = Collect_New("d", report<3>, report<3>);
  EXPECT_EQ(g_collect_param.count, 4);
}

template <int kIndex>
int32_t report(int32_t) {
  called += items[kIndex]->name;
  if (kIndex == 0) onAnotherThread ? std::thread(exchangeItems).join() : exchangeItems();
  Collect_PutInt(items[kIndex], 1, kIndex);
  return 0;
}

TEST_F(Runs, ServesTheItemsOfItsCatalogueUnderTheirIndexes) {
  for (const int32_t type : {1, host::kSelfTest}) {
    for (const bool other : {false, true}) {
      onAnotherThread = other;
      host::releaseItems();
      items[0] = Collect_New("a", report<0>, report<0>);
      items[1] = Collect_New("b", report<1>, report<1>);
      items[2] = Collect_New("c", report<2>, report<2>);
      Server server, next;
      EXPECT_EQ(host::start(type, server.port(), 7), 1);
      const std::vector<std::string> messages = server.messages();
      EXPECT_EQ(called, "ac");
      EXPECT_NE(messages.at(messages.size() - 2).find(bytesOf("81 00000002 00000000 00000001 00000002")),
                std::string::npos);
      Collect_Release(items[1]);  // once more, freed as it is
      EXPECT_EQ(g_collect_param.count, 2);
      EXPECT_EQ(items[2]->index * 10 + items[3]->index, 1);
      called.clear();
      EXPECT_EQ(host::start(type, next.port(), 7), 1);
      EXPECT_EQ(std::exchange(called, ""), "cd");
    }
  }
}

}  // namespace
