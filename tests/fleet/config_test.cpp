// config_test.cpp: what a configuration means, and what is refused, with its line.

#include "kep-fleet/config.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "kep-fleet/names_book.hpp"

namespace {

using namespace kepfleet;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(folder_.data()), nullptr);
    setenv("XDG_STATE_HOME", "/state", 1);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string write(const std::string &name, const std::string &text) const {
    const std::string path = folder_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
  Config read(const std::string &text) const { return readConfig(write("fleet.toml", text)); }

  // The complaint, without the folder.
  template <class Use>
  std::string complaint(const Use &use) const {
    try {
      use();
    } catch (const ConfigError &error) {
      std::string text = error.what();
      while (text.find(folder_ + "/") != std::string::npos) text.erase(text.find(folder_), folder_.size() + 1);
      return text;
    }
    return "";
  }

  std::string folder_ = ::testing::TempDir() + "kep-XXXXXX";
};

TEST_F(ConfigTest, ReadsAllThereIs) {
  write("token", "s3cret\n");
  const Config config = read(R"(
listen = "127.0.0.1:9000"
store = "postgresql://h/d"
instance = "one"
lease = "30s"
names_dir = "names"
on_event = "mail"
on_event_limit = "5s"
on_event_at_once = 2
limits = { connect = "1s", silence = "2s", run = "3s", run_size = "1MiB", pause = "10m", waiting = "2GiB" }
http = { address = "[2001:db8::1]:80", prefix = "/kep", hosts = ["a", "b"], token_file = "token", probe_any = true }
keep = { 0 = "1d", selftest = "365d", events = "2h" }
label_from = { firmware = { item = "system", section = 1, key = 4 } }
log = { level = "debug", format = "json" }
[[board]]
host = "192.0.2.7"
labels = { site = "north" }
names = "sub/pump.toml"
[[board]]
host = "pump.example:9100"
name = "pump"
[[poll]]
every = "500ms"
[[poll]]
selftest = true
every = "24h"
labels = { site = "north" }
)");
  EXPECT_EQ(config.listenAddress + ":" + std::to_string(config.listenPort), "127.0.0.1:9000");
  EXPECT_EQ(config.store + config.instance, "postgresql://h/done");
  EXPECT_EQ(config.lease, seconds(30));
  EXPECT_EQ(config.namesDir, folder_ + "/names");
  EXPECT_EQ(config.alarm.command, "mail");
  EXPECT_EQ(config.alarm.limit, seconds(5));
  EXPECT_EQ(config.alarm.atOnce, 2u);
  EXPECT_EQ(config.limits.connect + config.limits.silence + config.limits.run, seconds(6));
  EXPECT_EQ(config.limits.runBytes, 1u << 20);
  EXPECT_EQ(config.limits.waitingBytes, size_t{2} << 30);
  EXPECT_EQ(config.limits.longestPause, std::chrono::minutes(10));
  EXPECT_EQ(config.http.address + config.http.prefix + config.http.hosts[1] + config.http.token,
            "2001:db8::1/kepbs3cret");
  EXPECT_TRUE(config.http.port == 80 && config.http.probeAny);
  const std::map<int, milliseconds> keep = {
      {-1, hours(2)}, {0, hours(24)}, {1, hours(168)}, {2, hours(168)}, {3, hours(8760)}};
  EXPECT_EQ(config.keep, keep);
  ASSERT_EQ(config.labelFrom.size(), 1u);
  EXPECT_EQ(config.labelFrom[0].label + config.labelFrom[0].item, "firmwaresystem");
  EXPECT_EQ(config.labelFrom[0].section + config.labelFrom[0].key, 5);
  EXPECT_TRUE(config.log.json && config.log.level == "debug");
  ASSERT_EQ(config.boards.size(), 2u);
  EXPECT_EQ(config.boards[0].name + config.boards[0].namesFile, "192.0.2.7" + folder_ + "/sub/pump.toml");
  EXPECT_EQ(config.boards[0].labels.at("site"), "north");
  EXPECT_EQ(config.boards[1].host + std::to_string(config.boards[1].port) + config.boards[1].name,
            "pump.example9100pump");
  ASSERT_EQ(config.polls.size(), 2u);
  EXPECT_TRUE(config.polls[0].type == 0 && config.polls[0].every == milliseconds(500));
  EXPECT_TRUE(config.polls[1].type == 3 && config.polls[1].labels == config.boards[0].labels);

  for (const Config &least : {read("board = [{ host = 'a' }]"), defaultConfig({"a"})}) {
    EXPECT_EQ(least.store, "/state/kep/fleet.db");
    EXPECT_EQ(least.boards.at(0).name + std::to_string(least.boards.at(0).port), "a9099");
    EXPECT_TRUE(least.polls.size() == 1 && least.polls[0].every == seconds(15) && least.polls[0].type == 0);
    EXPECT_TRUE(least.keep.size() == 5 && least.keep.at(-1) == hours(168));
  }
}

TEST_F(ConfigTest, RefusesWhatItDoesNotUnderstand) {
  write("blank", " \n");
  const std::string board = "[[board]]\nhost = 'a'\n";
  struct Case {
    std::string text, complaint;  // behind the board, from line 3 on; behind the file's name
  };
  const std::vector<Case> cases = {
      {"hosts = 1", "3: unknown attribute \"hosts\"; expected host, port, name, names, labels"},
      {"[[board]]\nhost = 'a:9099'", "4: host: a second board at \"a:9099\""},
      {"[[board]]\nhost = 'b'\nname = 'a'", "5: name: a second board \"a\""},
      {"[[board]]\nhost = '1.2.3'", "4: host: not an IPv4 address: 1.2.3"},
      {"[[board]]\nhost = 'b:1'\nport = 2", "5: port: a port here and in host; expected one of them"},
      {"[[board]]\nname = 'b'", "3: no host; expected host = \"192.0.2.7\""},
      {"labels = { board = 'x' }", "3: labels: \"board\" is taken; expected another label"},
      {"labels = { 1x = 'x' }", "3: labels: \"1x\"; expected letters, digits and _"},
      {"labels = { x = 1 }", "3: x: expected a text, not a number"},
      {"[poll]", "3: poll: expected [[poll]], not a table"},
      {"[[poll]]\ntype = 3", "4: type: expected a whole number from 0 to 2"},
      {"[[poll]]\ntype = 1\nselftest = true", "5: selftest: a type and a self-test; expected one of them"},
      {"[[poll]]\nevery = 15", "4: every: expected a text, not a number"},
      {"[[poll]]\nevery = '15'", "4: every: \"15\"; expected a number and ms, s, m, h or d, such as \"15s\""},
      {"[[poll]]\nevery = '9999999999d'",
       "4: every: \"9999999999d\"; expected a number and ms, s, m, h or d, such as \"15s\""},
      {"[[poll]]\nevery = '1ms'", "4: every: expected at least 100ms"},
      {"[[poll]]\nlabels = { x = 'y' }", "4: labels: no board has them; expected such as some have"},
      {"[[poll]]\n[[poll]]\nevery = '1m'", "4: a second schedule for the same requests to board \"a\""},
      {"[limits]\nrun_size = '1k'", "4: run_size: \"1k\"; expected a number and B, KiB, MiB or GiB, such as \"16MiB\""},
      {"[limits]\nrun_size = '1GiB'", "4: run_size: expected at most 64MiB"},
      {"[limits]\nrun_size = '1B'", "4: run_size: expected at least 4096B"},
      {"[limits]\nrun = '1s'", "4: run: expected at least as long as connect"},
      {"[http]\naddress = 'localhost:1'",
       "4: address: not an IPv4 address: localhost; expected an IPv4 address and a port, such as \"127.0.0.1:9180\""},
      {"[http]\naddress = '[::1x]:1'",
       "4: address: not an IPv4 address: [::1x]; expected an IPv4 address and a port, such as \"127.0.0.1:9180\""},
      {"[http]\naddress = '127.0.0.1:70000'",
       "4: address: expected a port from 0 to 65535 behind the colon; expected an IPv4 address and a port, such as "
       "\"127.0.0.1:9180\""},
      {"[http]\nprefix = 'kep/'", "4: prefix: expected as \"/kep\", with a slash in front and none behind"},
      {"[http]\nhosts = 'a'", "4: hosts: expected a list of names, not a text"},
      {"[http]\ntoken_file = 'none'", "4: token_file: cannot open none: No such file or directory"},
      {"[http]\ntoken_file = 'blank'",
       "4: token_file: blank holds no token; expected visible characters but ; , and \""},
      {"[keep]\n4 = '1d'", "4: unknown attribute \"4\"; expected events, 0, 1, 2, selftest"},
      {"[label_from]\nx = { item = 'i' }", "4: x: expected item and key, such as { item = \"system\", key = 4 }"},
      {"[log]\nlevel = 'loud'", "4: level: \"loud\"; expected trace, debug, info, warning or error"},
      {"[log]\nformat = 'xml'", "4: format: \"xml\"; expected text or json"},
      {"[log", "3: Error while parsing table header: expected ']', saw '\\n'"},
  };
  for (const Case &one : cases) {
    EXPECT_EQ(complaint([&] { read(board + one.text + "\n"); }), "fleet.toml:" + one.complaint);
  }
  const std::vector<std::pair<std::string, std::string>> others = {
      {"lease = '9s'\n" + board, "fleet.toml:1: lease: expected with a store of postgresql:// only"},
      {"on_event_limit = '9s'\n" + board, "fleet.toml:1: on_event_limit: expected with on_event only"},
      {"keep = 7\n" + board, "fleet.toml:1: expected a table, not a number"},
      {"", "fleet.toml:1: no board; expected [[board]] with host = \"192.0.2.7\""},
  };
  for (const auto &[text, expected] : others) EXPECT_EQ(complaint([&, t = text] { read(t); }), expected);
  EXPECT_EQ(complaint([&] { readConfig(folder_ + "/none"); }), "cannot open none: No such file or directory");
  EXPECT_EQ(complaint([] { defaultConfig({"a", "a:9099"}); }), "a:9099: named twice");
  EXPECT_EQ(complaint([] { defaultConfig({"a:x"}); }), "a:x: expected a port from 1 to 65535 behind the colon");
  EXPECT_EQ(complaint([] { unsetenv("XDG_STATE_HOME"), unsetenv("HOME"), defaultConfig({"a"}); }),
            "no HOME to keep runs in; expected a configuration with store");
}

TEST_F(ConfigTest, FindsNamesByFileAndByIdentity) {
  write("0b01.toml", "[item.a.keys]\n1 = { name = 'x' }");
  write("own.toml", "[item.b.keys]\n1 = { name = 'x' }");
  write("common.toml", "no TOML");
  Config config = read("names_dir = '.'\nboard = [{ host = 'a' }, { host = 'b', names = 'own.toml' }]");
  NamesBook book;
  book.load(config);
  const auto itemsOf = [&](size_t board, const std::string &identity) {
    return book.of(config.boards[board], identity)->items;
  };
  EXPECT_EQ(itemsOf(0, "\x0B\x01").count("a"), 1u);
  EXPECT_EQ(itemsOf(1, "\x0B\x01").count("b"), 1u);
  EXPECT_TRUE(itemsOf(0, "").empty() && itemsOf(0, "\x0B\x02").empty());
  write("0b02.toml", "\n[item.a.keys]\n1 = {}");
  EXPECT_EQ(complaint([&] { book.load(config); }), "0b02.toml:3: no name; expected name = \"...\"");
  EXPECT_EQ(book.all().size(), 2u) << "what it has stays";
  config.namesDir = folder_ + "/none";
  EXPECT_EQ(complaint([&] { book.load(config); }), "cannot read none: No such file or directory");
}

}  // namespace
