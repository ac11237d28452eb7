// What Prometheus is told, as a whole, against a golden file; the names that collide; the commands for events.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kep-fleet/alarm.hpp"
#include "kep-fleet/metrics.hpp"
#include "server/board_stream.hpp"

using namespace kepfleet;
using namespace std::chrono_literals;

namespace {

const std::string kFolder = KEP_METRICS;  // with the configuration, the names and the golden file
constexpr int64_t kNow = 1'700'000'000'000;

std::string contentOf(const std::filesystem::path &path) {
  std::stringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

// ---- streams

std::string integer(int item, int section, int key, int64_t value) {
  return board::head(0x81, item, section, key) + board::word(value);
}
std::string longer(int item, int section, int key, int64_t value) {
  return board::head(0x82, item, section, key) + board::number(static_cast<uint64_t>(value), 8);
}
std::string bytes(int type, int item, int section, int key, const std::string &value) {
  return board::head(static_cast<uint8_t>(type), item, section, key) + board::counted(value);
}

// A message for each item, and the last one.
std::string collection(const std::vector<std::string> &items, const std::vector<std::string> &messages) {
  std::string catalogue, stream;
  for (size_t i = 0; i < items.size(); ++i) catalogue += board::word(int64_t(i)) + board::counted(items[i]);
  int number = 3;
  stream = board::message(0, 1, std::string("KB\0\0", 4)) + board::message(1, 2, catalogue);
  for (const std::string &message : messages) stream += board::message(2, number++, message);
  return stream + board::message(2, number, "");
}

// Numbers with and without names, more than one type of request, and all that a hostile board can do to labels.
std::string pump() {
  const std::string phase = std::string("\x00\x01\x00\x02\xFF\x9C\x00\x00\x00\x07", 10) +
                            std::string("\x3F\xF8\0\0\0\0\0\0", 8) + std::string("\x7F\x80\0\0", 4) + board::word(1);
  return collection({"power", "ports", "Größe №1"},
                    {integer(0, 0, 1, 11875) + longer(0, 0, 2, INT64_MAX) + integer(0, 0, 3, 2) +
                         integer(0, 0, 4, -2147483639) + integer(0, 0, 5, 12345) + bytes(0x83, 0, 0, 6, "K-17\n\xFF") +
                         integer(0, 0, 7, 3) + bytes(0x83, 0, 0, 8, "up & \"running\"") + bytes(0x84, 0, 0, 9, phase),
                     bytes(0x83, 1, 1, 1, "eth0") + integer(1, 1, 2, 5) + integer(1, 1, 3, 7) + integer(1, 2, 2, 6),
                     integer(2, 0, 1, 2950)});
}
std::string hostile() {
  const std::string longName = std::string(63, 'x') + "€ and more";
  return collection({"power", "ports", "a\"b\\c\n\xC3"},
                    {bytes(0x83, 0, 0, 1, "no number") + integer(0, 0, 6, 4) + integer(0, 0, 3, 99) +
                         integer(0, 0, 7, 1) + integer(0, 0, 7, 2),
                     bytes(0x83, 1, 1, 1, longName + "1") + integer(1, 1, 2, 1) + bytes(0x83, 1, 2, 1, longName + "2") +
                         integer(1, 2, 2, 2) + bytes(0x83, 1, 3, 1, std::string("\"}\nkep_up 1\n\0\xE2\x82", 15)) +
                         integer(1, 3, 2, 3),
                     integer(2, -1, INT32_MIN, -1) + longer(7, 0, 1, INT64_MIN)});
}
std::string selfTest() {
  return board::message(0, 77, std::string("KB\0\0", 4)) +
         board::message(2, 1, bytes(0x83, 65535, 0, 0, "power") + integer(0, 0, 1, 4310) + integer(0, 0, 9, 1)) +
         board::message(2, 2, "");
}

// ---- the golden file

class MetricsTest : public testing::Test {
 protected:
  MetricsTest() {
    names_.load(config_);
    boards_.configure(config_);
    const std::string other = collection({"power"}, {integer(0, 0, 1, 1) + integer(0, 0, 5, 100)});
    const std::string cut = pump().substr(0, 100);
    const auto take = [this](size_t place, int type, int64_t age, Outcome outcome, const std::string &stream) {
      boards_.take(boards_.judge({config_.boards[place].name, kNow - age, type, outcome, 250, 4, stream, "", 0}));
    };
    take(0, 0, 2000, Outcome::kWhole, pump());
    take(0, 1, 1000, Outcome::kWhole, other);  // the newer: its numbers count where both have one
    take(0, 3, 3'599'999, Outcome::kWhole, selfTest());
    take(1, 0, 1, Outcome::kWhole, hostile());
    take(2, 0, 1, Outcome::kWhole, pump());
    take(3, 0, 20'000, Outcome::kWhole, pump());
    take(3, 0, 5'000, Outcome::kBrokenOff, cut);
    take(4, 0, 90'001, Outcome::kWhole, pump());
    take(4, 3, 3'600'001, Outcome::kWhole, selfTest());  // by hand, long ago
    take(5, 0, 1, Outcome::kWhole, pump());
    take(6, 0, 1, Outcome::kNoAnswer, "");
    take(7, 0, 1, Outcome::kNoAnswer, "");
    boards_.setHeld("another's", false);
  }

  std::string written(const std::function<void(const Pieces &)> &write) {
    std::string text;
    write([&text](std::string_view piece) {
      text += piece;
      return true;
    });
    return text;
  }

  Config config_ = readConfig(kFolder + "/fleet.toml");
  NamesBook names_;
  Boards boards_{names_};
};

TEST_F(MetricsTest, AreAsTheGoldenFileHasThem) {
  Metrics metrics(config_, names_);
  Health health;
  health.store = "full";
  health.strangers = 3;
  std::string text = written([&](const Pieces &take) { metrics.write(boards_, health, kNow, take); });
  EXPECT_EQ(metrics.leftOut(), 3U);  // a number twice, a section whose name is another's, a board likewise
  const BoardState state = *boards_.find("pump 1");
  for (const RunPointer &run : {state.last[0], state.last[3], boards_.find("broken")->last[0]}) {
    text += "\n";
    text += written([&](const Pieces &take) { metrics.writeProbe(state, *run, kNow, take); });
  }
  text += "\n" + nlohmann::json::parse(serviceDiscovery(boards_)).dump(2) + "\n";
  if (std::getenv("KEP_GOLDEN")) std::ofstream(kFolder + "/expected.txt") << text;
  EXPECT_EQ(text, contentOf(kFolder + "/expected.txt")) << "KEP_GOLDEN=1 in the environment writes it anew";
}

// Nobody reads on: nothing more is made. A broken board fills no memory, and a file that is new at run time no metrics.
TEST_F(MetricsTest, AreBounded) {
  std::vector<std::string> messages;
  for (int i = 0; i < 300; ++i) {
    messages.emplace_back();
    for (int k = 0; k < 50; ++k) messages.back() += integer(0, i, k, i);
  }
  boards_.take(boards_.judge({"unnamed", kNow, 0, Outcome::kWhole, 1, 1, collection({"flood"}, messages), "", 0}));
  Metrics metrics(config_, names_);
  int pieces = 0;
  metrics.write(boards_, {}, kNow, [&pieces](std::string_view) { return ++pieces < 2; });
  EXPECT_EQ(pieces, 2);
  EXPECT_EQ(metrics.leftOut(), 3U + 15000 - 5000 + 5);
  names_.load(config_);
  const std::string text = written([&](const Pieces &take) { metrics.write(boards_, {}, kNow, take); });
  EXPECT_EQ(text.find("kep_power"), std::string::npos);
  EXPECT_NE(text.find("kep_up{board=\"pump 1\""), std::string::npos);
  metrics.configure(config_);
  EXPECT_NE(written([&](const Pieces &take) { metrics.write(boards_, {}, kNow, take); }).find("kep_power"),
            std::string::npos);
}

// ---- collisions

class Folder {
 public:
  Folder() { mkdtemp(path_.data()); }
  ~Folder() { std::filesystem::remove_all(path_); }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_ = testing::TempDir() + "kep-metrics-XXXXXX";
};

TEST(MetricNamesTest, CollideInTheWordsOfTheirError) {
  const std::string volts = "[item.power.keys]\n1 = { name = \"supply\", unit = \"V\" }\n";
  const std::string two = "[item.power.keys]\n2 = { name = \"supply volts\", ";
  const std::string said = "2.toml: [item.power.keys] 2: kep_power_supply_volts";
  const std::string before = " in 1.toml [item.power.keys] 1";
  const struct {
    std::string first, second, reason;
  } cases[] = {
      {volts, "[item.power.keys]\n7 = { name = \"Supply\", unit = \"mV\" }\n", ""},
      {volts, "[item.power.keys_in.1]\n1 = { name = \"supply\", unit = \"V\" }\n", ""},
      {volts, two + "kind = \"text\" }\n", ""},
      {volts, two + "kind = \"gauge\" }\n", said + " is a gauge without a unit, but a gauge in volts" + before},
      {volts, two + "states = { 0 = \"a\" } }\n", said + " is states, but a gauge in volts" + before},
      {volts, two + "help = \"?\" }\n", said + " is a number of no kind without a unit, but a gauge in volts" + before},
      {"[item.a.keys]\n1 = { name = \"b c total\", kind = \"gauge\" }\n",
       "[item.\"a b\".keys]\n1 = { name = \"c\", kind = \"counter\" }\n",
       "2.toml: [item.a b.keys] 1: kep_a_b_c_total is a counter without a unit, but a gauge without a unit in 1.toml "
       "[item.a.keys] 1"},
      {"", volts + "2 = { name = \"Supply\", unit = \"V\" }\n",
       "2.toml: [item.power.keys] 2: kep_power_supply_volts, as is [item.power.keys] 1"},
      {"", volts + "[item.power.keys_in.3]\n1 = { name = \"supply\", unit = \"V\" }\n", ""},
      {"", volts + "[item.power.keys_in.3]\n2 = { name = \"supply\", unit = \"V\" }\n",
       "2.toml: [item.power.keys_in.3] 2: kep_power_supply_volts, as is [item.power.keys] 1"},
      {"", "[item.fleet.keys]\n1 = { name = \"boards\" }\n",
       "2.toml: [item.fleet.keys] 1: kep_fleet_boards is a metric of kep-fleet's own"},
      {"", "[item.a.keys]\n1 = { name = \"b\", unit = \"GiB\", scale = 1e15 }\n",
       "2.toml: [item.a.keys] 1: the scale is too large, or too small, for GiB"},
  };
  for (const auto &one : cases) {
    const Folder folder;
    Config config;
    for (const std::string name : {"1.toml", "2.toml"}) {
      std::ofstream(folder / name) << (name == "1.toml" ? one.first : one.second);
      BoardConfig board;
      board.name = board.namesFile = folder / name;
      config.boards.push_back(board);
    }
    NamesBook names;
    names.load(config);
    std::string reason;
    try {
      Metrics metrics(config, names);
    } catch (const ConfigError &error) {
      reason = error.what();
    }
    for (size_t at = 0; (at = reason.find(folder / "")) != std::string::npos;) reason.erase(at, (folder / "").size());
    EXPECT_EQ(reason, one.reason) << one.first << one.second;
  }
}

// ---- commands for events

bool eventually(const std::function<bool()> &isTrue) {
  for (int i = 0; i < 3000 && !isTrue(); ++i) std::this_thread::sleep_for(10ms);
  return isTrue();
}

Event lost(const std::string &board) { return {board, kNow, EventKind::kLost, "no\xFF\n", 0}; }

TEST(AlarmTest, RunsACommandWithTheEventAndNothingElse) {
  const Folder folder;
  setenv("KEP_SECRET", "password", 1);
  const int leaked = fcntl(0, F_DUPFD, 50);  // without O_CLOEXEC
  const std::string place = "/proc/$$/fd/" + std::to_string(leaked);
  Alarm alarm(
      {"cd " + (folder / "") + " && cat >event && env >env && ! [ -e " + place + " ] && >done; exit 3", 30s, 1});
  alarm.put(lost("<b>\"$(touch bad)"));
  ASSERT_TRUE(eventually([&] { return alarm.counts().failed == 1; }));  // its status was 3
  EXPECT_EQ(
      contentOf(folder / "event"),
      "{\"board\":\"<b>\\\"$(touch bad)\",\"kind\":\"lost\",\"text\":\"no\\\\xff\\\\n\",\"time\":1700000000000}\n");
  EXPECT_EQ(contentOf(folder / "env").find("KEP_SECRET"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(folder / "done"));
  alarm.configure({});
  alarm.put(lost("a"));
  alarm.stop(10s);
  EXPECT_EQ(alarm.counts().started, 1U);
  close(leaked);
}

// What it starts ends with the shell, and with the time there is; too many events push the oldest out; no process and
// no zombie is left.
TEST(AlarmTest, IsBoundedInTimeAndNumber) {
  const Folder folder;
  Alarm alarm({"echo $$ >>" + (folder / "groups") + "; sleep 1000 & [ -e " + (folder / "short") + " ] || sleep 1000",
               200ms, 2});
  for (int i = 0; i < 1500; ++i) alarm.put(lost(std::to_string(i)));
  EXPECT_GE(alarm.counts().dropped, 490U);
  ASSERT_TRUE(eventually([&] { return alarm.counts().failed >= 2; }));
  std::ofstream(folder / "short") << "x";
  ASSERT_TRUE(eventually([&] { return alarm.counts().started >= alarm.counts().failed + 10; }));
  alarm.stop(0s);
  const Alarm::Counts counts = alarm.counts();
  EXPECT_EQ(counts.started + counts.dropped, 1500U);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  std::ifstream groups(folder / "groups");
  for (pid_t group = 0; groups >> group;)
    EXPECT_TRUE(kill(-group, 0) != 0 || eventually([group] { return kill(-group, 0) != 0; }));
}

}  // namespace
