// Whole runs against a server: every message and every line of the log, when all goes well.
#include <gtest/gtest.h>
#include <kep/kep.h>

#include <regex>

#include "collection/server.hpp"
#include "support/platform_double.hpp"

namespace {

using wire::Stream;

ZuFault *fault;
CollectItem *figures, *logs;

std::string longText() {
  std::string text;
  for (int i = 0; text.size() < 3000; ++i) text += std::to_string(i) + ' ';
  return text.substr(0, 3000);
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

int32_t collectNothing(int32_t) { return 0; }

int32_t collectLogs(int32_t) {
  Collect_PutInitLog(logs, 7, fault);
  Collect_PutRunLog(logs, 8, fault);
  return 0;
}

int32_t testFigures(int32_t argument) {
  Collect_PutInt(figures, 9, argument);
  return 0;
}

// Digits that change from day to day, made letters.
std::string withoutTimes(const std::string &text) {
  const std::regex time("[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"), shortYear("\n[0-9]{2}/MM"),
      year("20[0-9]{2}/MM");
  const std::string days = std::regex_replace(text, time, "MM/DD HH:MI:SS");
  return std::regex_replace(std::regex_replace(days, shortYear, "\nYY/MM"), year, "YYYY/MM");
}

std::vector<std::string> withoutTimes(std::vector<std::string> messages) {
  for (std::string &message : messages) message = withoutTimes(message);
  return messages;
}

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
    Collect_New("no collect", nullptr, collectNothing);
    Collect_New("a name longer than its field", collectNothing, nullptr);
    logs = Collect_New("logs", collectLogs, nullptr);
    platform::takePrinted();
  }
  ~Driver() override {
    CollectClient_End();
    while (g_collect_param.count > 0) Collect_Release(g_collect_param.items[0]);
    ZuLogger_Release(g_collect_param.logger);
    g_collect_param.logger = nullptr;
  }

  static int32_t collect(int32_t port) { return Collect_Start("127.0.0.1", port, 2, 77, 0xAB, 0xCD); }
  static int32_t selfTest(int32_t port) { return Collect_SelfTest("127.0.0.1", port, 77, 0xAB, 0xCD); }

  // What the service's log holds. Nothing of it may have been echoed before.
  static std::string log() {
    EXPECT_EQ(platform::takePrinted(), "");
    Collect_ShowLog();
    return withoutTimes("\n" + platform::takePrinted());
  }

  static std::string line(const std::string &text) { return "YYYY/MM/DD HH:MI:SS\n" + text + "\n"; }
  static std::string itemLine(const std::string &text) { return line("YY/MM/DD HH:MI:SS " + text + "\n"); }

  static Stream begun() {
    Stream run(lastSequence());
    run.append(std::string("\xAB\xCD\0\0", 4));
    run.flush(77);
    return run;
  }

  static std::vector<std::string> collection() {
    Stream run = begun();
    run.setType(1);
    for (const char *entry : {"\0figures", "\1no collect", "\2a name longer than ", "\3logs"}) {
      run.append(wire::word(*entry) + wire::counted(entry + 1));
    }
    run.flush();
    run.setType(2);
    run.putInt(0, 5, 1, 2);
    run.putLong(0, 5, 2, INT64_MIN + 2);
    run.putString(0, 0, 3, "te");
    run.putString(0, 0, 4, longText());
    run.putBuffer(0, 0, 5, std::string("\x80\0\x01", 3));
    run.putBuffer(0, 0, 6, longText().substr(0, 1500));
    run.flush();
    run.flush();  // the item that reports nothing
    for (const char *text : {"MM/DD HH:MI:SS", "up", "MM/DD HH:MI:SS", ""}) run.putString(3, 0, 7, text);
    for (const std::string &text : {std::string("MM/DD HH:MI:SS"), longText()}) run.putString(3, 0, 8, text);
    run.flush();
    run.flush();
    return run.messages();
  }
};

TEST_F(Driver, SendsACollectionByteForByte) {
  const std::vector<std::string> expected = collection();
  Server server;
  EXPECT_EQ(collect(server.port()), 1);
  EXPECT_EQ(withoutTimes(server.messages()), expected);
  EXPECT_FALSE(server.wasHurried());
  EXPECT_EQ(log(), "\n" + itemLine("[figures] begin...") + itemLine("[figures] end") +
                       itemLine("[a name longer than ] begin...") + itemLine("[a name longer than ] end") +
                       itemLine("[logs] begin...") + itemLine("[logs] end"));
}

TEST_F(Driver, SendsASelfTestByteForByte) {
  Stream run = begun();
  run.setType(2);
  run.putString(0xFFFF, 0, 0, "figures");
  run.putInt(0, 0, 9, 0);
  run.flush();
  run.putString(0xFFFF, 0, 0, "no collect");
  run.flush();
  run.flush();
  Server server;
  EXPECT_EQ(selfTest(server.port()), 1);
  EXPECT_EQ(server.messages(), run.messages());
  EXPECT_EQ(log(), "\n" + itemLine("[figures] selftest begin...") + itemLine("[figures] selftest end") +
                       itemLine("[no collect] selftest begin...") + itemLine("[no collect] selftest end"));
}

TEST_F(Driver, SendsAnEmptyCatalogueWhenThereAreNoItems) {
  while (g_collect_param.count > 0) Collect_Release(g_collect_param.items[0]);
  Server server;
  EXPECT_EQ(collect(server.port()), 1);
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
