#include "collection/host.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string_view>

#include "ZuFault.hpp"

namespace host {

CollectItem *figures, *logs;
ZuFault *fault;

namespace {

int32_t number;
size_t textSize;

std::string text(size_t size) {
  std::string text;
  for (int32_t i = number; text.size() < size; ++i) text += std::to_string(i) + ' ';
  return text.substr(0, size);
}

int32_t reportFigures(int32_t argument) {
  Collect_BeginSection(figures, 5);
  Collect_PutInt(figures, 1, argument);
  Collect_PutLong(figures, 2, INT64_MIN + number);
  Collect_EndSection(figures);
  Collect_PutString(figures, 3, "text", 2);
  Collect_PutString(figures, 3, "", 0);
  Collect_PutString(figures, 4, text(textSize).c_str(), 0);
  Collect_PutStruct(figures, 5, "\x80\0\x01", 3);
  Collect_PutStruct(figures, 6, text(1100).data(), 1100);
  return 0;
}

int32_t testFigures(int32_t argument) {
  Collect_PutInt(figures, 9, argument);
  Collect_PutString(figures, 4, text(textSize).c_str(), 0);
  return 0;
}

int32_t reportNothing(int32_t) { return 0; }

int32_t reportLogs(int32_t) {
  Collect_PutInitLog(logs, 7, fault);
  Collect_PutRunLog(logs, 8, fault);
  Collect_PutLog(logs, 9, fault ? fault->initLog : nullptr);
  return 0;
}

}  // namespace

void registerItems() {
  fault = ZuFault_Regist("fault", nullptr);
  ZuFault_SetInitLog(fault, 1, 0, "u");
  ZuFault_SetInitLog(fault, 1, 0, "");
  setContent(0);
  figures = Collect_New("figures", reportFigures, testFigures);
  Collect_New("no collect", nullptr, reportNothing);
  Collect_New("a name longer than its field", reportNothing, nullptr);
  logs = Collect_New("logs", reportLogs, nullptr);
}

void releaseItems() {
  while (g_collect_param.count > 0) Collect_Release(g_collect_param.items[0]);
}

void setContent(int32_t newNumber, size_t newTextSize) {
  number = newNumber;
  textSize = newTextSize;
  if (fault) ZuLogger_ClearInfo(fault->runLog);
  ZuFault_SetRunLog(fault, 3, 0, text(1100).c_str());
}

int32_t start(int32_t type, int32_t port, int32_t sequence) {
  if (type == kSelfTest) return Collect_SelfTest("127.0.0.1", port, sequence, 0xAB, 0xCD);
  return Collect_Start("127.0.0.1", port, type, sequence, 0xAB, 0xCD);
}

const std::string &Service::address() {
  static const std::string address = [pid = getpid()] {
    const int bytes[] = {128 | pid >> 16, pid >> 8 & 255, pid & 255};
    return "127." + std::to_string(bytes[0]) + '.' + std::to_string(bytes[1]) + '.' + std::to_string(bytes[2]);
  }();
  return address;
}

Service::Service(int32_t (*serve)()) {
  EXPECT_EQ(Collect_SetAddress(address().c_str(), 0), 1);
  thread_ = std::thread([=] {
    task_ = gettid();
    result_ = serve();
    hasReturned_ = true;
  });
  while (!isBound(9099) && !hasReturned_) std::this_thread::yield();
}

void Service::awaitSleep() const {
  for (int looks = 0; looks < 20 && !hasReturned_;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::ifstream stat("/proc/self/task/" + std::to_string(task_) + "/stat");
    std::string text;
    std::getline(stat, text);
    looks = text.compare(text.rfind(')'), 3, ") S") == 0 ? looks + 1 : 0;
  }
}

int32_t Service::join() {
  thread_.join();
  return result_;
}

Run::Run(int32_t type, int32_t sequence, int32_t lastNumber) : stream(lastNumber) {
  const auto flushAndCheck = [&](const std::string &logged) {
    stream.flush();
    checks[size() - 1] = logged;
  };
  stream.append(std::string("\xAB\xCD\0\0", 4));
  stream.flush(sequence);
  if (type == kSelfTest) {
    stream.setType(2);
    stream.putString(0xFFFF, 0, 0, "figures");
    stream.putInt(0, 0, 9, 0);
    stream.putString(0, 0, 4, text(textSize));
    flushAndCheck(beginAndEnd("[figures] selftest "));
    stream.putString(0xFFFF, 0, 0, "no collect");
    flushAndCheck(beginAndEnd("[no collect] selftest "));
  } else {
    stream.setType(1);
    for (const char *entry : {"\0figures", "\1no collect", "\2a name longer than ", "\3logs"}) {
      stream.append(wire::word(*entry) + wire::counted(entry + 1));
    }
    flushAndCheck("");
    stream.setType(2);
    stream.putInt(0, 5, 1, type);
    stream.putLong(0, 5, 2, INT64_MIN + number);
    stream.putString(0, 0, 3, "te");
    stream.putString(0, 0, 4, text(textSize));
    stream.putBuffer(0, 0, 5, std::string("\x80\0\x01", 3));
    stream.putBuffer(0, 0, 6, text(1100));
    flushAndCheck(beginAndEnd("[figures] "));
    flushAndCheck(beginAndEnd("[a name longer than ] "));  // it reports nothing
    const std::string time = "##/## ##:##:##", initLog[] = {time, "u", time, ""}, runLog[] = {time, text(1100)};
    for (const std::string &record : initLog) stream.putString(3, 0, 7, record);
    for (const std::string &record : runLog) stream.putString(3, 0, 8, record);
    for (const std::string &record : initLog) stream.putString(3, 0, 9, record);
    flushAndCheck(beginAndEnd("[logs] "));
  }
  stream.flush();
}

std::vector<std::string> withoutTimes(std::vector<std::string> texts) {
  const auto isPart = [](char c) { return std::string_view("#0123456789/ :").find(c) != std::string::npos; };
  for (std::string &text : texts) {
    for (size_t at = 0; at + 14 <= text.size(); ++at) {
      if (text[at + 2] != '/' || text[at + 5] != ' ' || text[at + 8] != ':' || text[at + 11] != ':') continue;
      for (size_t i = at + 14; i > 0 && isPart(text[i - 1]); --i) {
        if (text[i - 1] >= '0' && text[i - 1] <= '9') text[i - 1] = '#';
      }
    }
  }
  return texts;
}

std::string line(const std::string &text) { return "####/##/## ##:##:##\n" + text + "\n"; }

std::string beginAndEnd(const std::string &item) {
  return line("##/##/## ##:##:## " + item + "begin...\n") + line("##/##/## ##:##:## " + item + "end\n");
}

}  // namespace host
