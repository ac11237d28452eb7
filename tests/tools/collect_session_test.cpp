// collect_session_test.cpp: the command kep-collect against a board that the test plays, over loopback.

#include <utime.h>

#include <functional>
#include <optional>

#include "command.hpp"
#include "server/board_stream.hpp"

namespace {

using board::collection;
using board::counted;
using board::head;
using board::joined;
using board::message;
using board::selfTest;
using board::word;

std::string text(int32_t item, int32_t section, int32_t key, const std::string &bytes) {
  return head(0x83, item, section, key) + counted(bytes);
}

std::string number(int32_t item, int32_t section, int32_t key, int64_t value) {
  return head(0x82, item, section, key) + board::number(static_cast<uint64_t>(value), 8);
}

// A run with everything that names can say, and with values that they do not fit, and a self-test.
Strings shownRun() {
  return {message(0, 77, std::string("KB\0\0", 4)),
          message(1, 1,
                  word(0) + counted("system") + word(1) + counted("network") + word(2) + counted("log") + word(3) +
                      counted("other")),
          message(2, 2,
                  number(0, 0, 1, 123456789) + number(0, 0, 2, 9) + head(0x84, 0, 0, 3) +
                      counted(word(412) + word(0) + board::number(0x46293E5939A08CEA, 8)) + number(0, 0, 9, -5)),
          message(2, 3,
                  text(1, 1, 1, "eth0") + number(1, 1, 2, 672176260) + text(1, 2, 1, "\xE6\x97\xA5\xE6\x9C\xAC") +
                      number(1, 3, 2, -1) + text(1, 3, 2, "none\x1B")),
          message(2, 4,
                  text(2, 1, 1, "lost its time") + text(2, 1, 1, "11/23 03:50:21") +
                      text(2, 1, 1, "a line that is rather \xE9\x95\xB7\xE3\x81\x84, and is broken somewhere") +
                      text(2, 2, 1, "11/23 03:50:22") + text(2, 2, 1, "")),
          message(2, 5, head(0x84, 3, 4, 1) + counted(std::string("\0\xFF", 2))),
          message(2, 6, "")};
}

Strings testRun(int links, const std::string &other) {
  return {message(0, 77, std::string("KB\0\0", 4)),
          message(2, 1, text(65535, 0, 0, "system") + number(0, 0, 1, 4899) + text(0, 0, 2, "ok")),
          message(2, 2, text(65535, 0, 0, other) + number(3, 0, 1, 0)),
          message(2, 3,
                  text(65535, 0, 0, "network") + number(1, 0, 1, links) + number(1, 0, 2, links) + number(1, 0, 2, 2)),
          message(2, 4, "")};
}

class Collect : public CommandTest {
 protected:
  static std::string golden(const std::string &name) { return contentOf(KEP_GOLDEN "/" + name); }

  void launch(const std::string &arguments) { command_.emplace("127.0.0.1:" + board_.port() + " " + arguments); }

  const std::regex time_{"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d(Z|.01:00)"};
  BoardPeer board_;
  std::optional<Command> command_;
};

// Each run is replayed from the bytes that it kept, too.
TEST_F(Collect, EndsAsTheBoardAndTheNetworkHaveIt) {
  const Strings all = collection();
  const Strings begun(all.begin(), all.begin() + 2);
  const std::string stream = joined(all);
  const auto sends = [this](const Strings &acknowledged, const std::string &rest = "") {
    return [=] {
      board_.sendAcknowledged(acknowledged);
      board_.sendBytes(rest);
    };
  };
  const auto waits = [=](const std::string &rest, int signal = 0) {
    return [=] {
      sends(begun, rest)();
      command_->signal(signal);
      EXPECT_LE(board_.takeAcknowledgement(), 0) << "the command closes the connection";
    };
  };
  const auto hangs = [=] {  // within a value of the other item
    sends({all[0], all[1], message(2, 43, head(0x81, 0, 0, 1) + word(5) + head(0x03, 1, 0, 1) + counted("a"))})();
    EXPECT_LE(board_.takeAcknowledgement(), 0);
  };
  const auto resets = [=] {
    board_.sendAcknowledged(begun);
    const linger atOnce = {1, 0};
    setsockopt(board_.connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  };
  const auto sendsPortions = [=] {
    for (size_t i = 0; i < 40; ++i) board_.sendBytes(stream.substr(i, 1));
    board_.sendBytes(stream.substr(40));
    auto left = static_cast<ssize_t>(all.size());
    for (ssize_t size = 1; left > 0 && size > 0; left -= size) size = board_.takeAcknowledgement();
    EXPECT_EQ(left, 0);
  };
  const Strings numbered = {message(0, 41, "KB12"), message(1, 42, ""), message(2, 43, "")};  // by the board itself
  struct Case {
    std::string format, arguments;
    int32_t type, sequence;
    std::function<void()> behave;
    int status;
    std::string err, printed;
  };
  const std::string begunText = golden("begun.text");
  std::string rawCsv = golden("collection.csv");
  rawCsv.erase(rawCsv.find("'="), 1);
  const std::string quotedJson =
      std::regex_replace(golden("collection.json"), std::regex("-9223372036854775808"), "\"$&\"");
  const std::string early = ": the stream ends before the run's last message";
  const std::vector<Case> cases = {
      {"text", "", 0, 77, sends(all), 0, "", golden("collection.text")},
      {"json", "--type 2", 2, 77, sends(all), 0, "", golden("collection.json")},
      {"json --big-as-text", "", 0, 77, sends(all), 0, "", quotedJson},
      {"csv", "--type 1", 1, 77, sends(all), 0, "", golden("collection.csv")},
      {"csv --csv-raw", "", 0, 77, sends(all), 0, "", rawCsv},
      {"text", "--selftest", 3, 77, sends(selfTest()), 0, "", golden("self-test.text")},
      {"text", "", 0, 77, sendsPortions, 0, "", golden("collection.text")},
      {"csv", "", 0, 0, sends(numbered), 0, "", golden("numbered.csv")},
      {"text", "", 0, 77, waits(message(2, 43, "\x55")), 1, "damaged at offset 60: unknown record type 85", begunText},
      {"text", "", 0, 77, sends(begun), 1, "cut short at offset 48" + early, begunText},
      {"text", "", 0, 77, sends(begun, all[2].substr(0, 12)), 1,
       "cut short at offset 60: the stream ends inside a message", begunText},
      {"text", "", 0, 77, resets, 4, "the connection broke: Connection reset by peer", begunText},
      {"text", "", 0, 77, waits("", SIGTERM), 4, "interrupted", begunText},
      {"text", "--timeout 2", 0, 77, waits(""), 3,
       "timed out: no more data from the board, which has reported nothing yet", begunText},
      {"text", "--timeout 2", 0, 77, hangs, 3,
       "timed out: no more data from the board, which reported caf\xC3\xA9 last",
       begunText.substr(0, begunText.find("2 messages")) +
           "item  name  section  key  kind  value\n   0  log         0    1  int   5\n"
           "3 messages, 2 records, 93 bytes, not whole\n"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.arguments + c.err + c.printed);
    std::filesystem::remove("raw");
    const std::string format = " --format " + c.format;
    launch("--listen 127.0.0.2 --raw raw --sequence " + std::to_string(c.sequence) + format + " " + c.arguments);
    EXPECT_EQ(board_.beginVisit(), word(16) + word(c.type) + word(c.sequence));
    EXPECT_STREQ(inet_ntoa(board_.sender.sin_addr), "127.0.0.2");
    c.behave();
    board_.hangUp();
    EXPECT_EQ(command_->status(), c.status);
    EXPECT_EQ(err(), c.err.empty() ? "" : "kep-collect: " + c.err + "\n");
    EXPECT_EQ(out(), c.printed);

    EXPECT_EQ(run("--replay raw" + format), c.status == 0 ? 0 : 1);
    EXPECT_EQ(out(), c.printed);
  }
}

TEST_F(Collect, ShowsWhatTheNamesMake) {
  const Strings shown = shownRun();
  std::ofstream("run") << joined(shown);
  std::ofstream("cut") << shown[0] << shown[1] << shown[2] << message(2, 3, "");
  std::ofstream("test") << joined(testRun(2, "fan"));
  std::filesystem::create_directory("dir");
  std::filesystem::copy(KEP_GOLDEN "/shown.toml", "dir/4b42.toml");
  utimbuf collected = {0, 1795478400};  // 2026-11-24: the year of a time that has none
  utime("run", &collected);
  EXPECT_EQ(run("--replay run --names-dir dir --width 72 --cut"), 0);
  const std::regex wrapped("is rather\\n.*\\n.*somewhere");
  EXPECT_EQ(out(), std::regex_replace(golden("shown.text"), wrapped, "is rather \xE2\x80\xA6"));
  struct Case {
    std::string arguments;
    int status;
    std::string printed, err;
  };
  const std::vector<Case> cases = {
      {"run --names-dir dir --width 72", 0, "shown.text", ""},
      {"run --names dir/4b42.toml --format csv", 0, "shown.csv", ""},
      {"test --names dir/4b42.toml", 5, "tested.text", ""},
      {"cut --names dir/4b42.toml", 1, "shown-cut.text",
       "cut short at offset 191: fewer data messages than the items that report, and the last one"},
      {"run --names-dir .", 2, "unnamed.text", "cannot open ./4b42.toml: No such file or directory"},
      {"run --names none", 2, "", "cannot open none: No such file or directory"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.arguments);
    EXPECT_EQ(run("--replay " + c.arguments), c.status);
    EXPECT_EQ(out(), c.printed.empty() ? "" : golden(c.printed));
    EXPECT_EQ(err(), c.err.empty() ? "" : "kep-collect: " + c.err + "\n");
  }

  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  winsize size = {25, 72, 0, 0};
  char onTerminal[4096];
  EXPECT_TRUE(grantpt(terminal) == 0 && unlockpt(terminal) == 0 && ioctl(terminal, TIOCSWINSZ, &size) == 0);
  for (const std::string colours : {"NO_COLOR=", "NO_COLOR=1"}) {
    EXPECT_EQ(run("--replay run --names-dir dir >" + std::string(ptsname(terminal)), colours), 0);
    const std::string shownThere(onTerminal, static_cast<size_t>(read(terminal, onTerminal, sizeof onTerminal)));
    EXPECT_EQ(shownThere.find("\x1B[2m11/23 03:50:21\x1B[0m") != std::string::npos, colours.back() == '=');
    EXPECT_EQ(std::regex_replace(shownThere, std::regex("\x1B\\[[0-9]+m|\r"), ""), golden("shown.text"));
  }
  close(terminal);

  std::string printed = contentOf(KEP_GOLDEN "/../../server/golden/faults.named.json");
  for (const std::string path : {"run", "test"}) {
    run("--replay " + path + " --names dir/4b42.toml --format json --big-as-text");
    printed += out();
  }
  std::istringstream page(contentOf(KEP_GOLDEN "/../../../docs/json.md"));
  for (std::string line; std::getline(page, line);) {
    EXPECT_TRUE(line[0] != '{' || printed.find(line + "\n") != std::string::npos) << line;
  }
}

TEST_F(Collect, TellsWhyThereIsNoRun) {
  const std::string port = board_.port(), closedPort = Peer().port();
  std::ofstream("kept") << "a run before";
  EXPECT_EQ(run("127.0.0.1:0" + port + " --timeout 0.05 --raw kept"), 3) << "in decimal";
  EXPECT_EQ(contentOf("kept"), "a run before");
  EXPECT_EQ(err(), "kep-collect: timed out: no connection from 127.0.0.1 port " + port + "\n");
  EXPECT_EQ(run("127.0.0.1 --port " + closedPort), 3);
  EXPECT_NE(err().find("Connection refused"), std::string::npos) << err();
  EXPECT_EQ(run(std::string(64, 'a') + ".invalid"), 3) << "no such name can exist";
  EXPECT_EQ(run("255.255.255.255"), 3);
  EXPECT_NE(err().find("cannot send the request to 255.255.255.255: "), std::string::npos) << err();

  expectWrongUsage(
      "",
      "|''|1.2.3|127.1|300.1.1.1|010.0.0.1|0x7f000001|::1|a/b|a%b|' a'|a:|a:0|:1|a:1 --port 1|--replay none|--replay .|"
      "--replay err --raw raw|--replay err --any-source|"
      "--replay err --width 9|--replay err --cut|--replay err --watch 1 --only-changes|--replay err --names "
      "''|--replay err --names err --names-dir b");
  expectWrongUsage("localhost ",
                   "''|extra --raw raw|extra:1 --port 1|--only-changes|--unknown|--port 0|--port 65536|--port "
                   "0x10|--type 3|--type 010|"
                   "--type 0 --selftest|--sequence -1|--sequence 2147483648|--sequence 0x1|--timeout 0|"
                   "--timeout nan|--timeout 0x10|--watch -5|--until-pass|--watch 1 --selftest --until-pass|--format "
                   "xml|--listen localhost|"
                   "--listen 1.2.3|--listen 0x7f.0.0.01|--listen 192.0.2.1|--listen 224.0.0.1|--listen "
                   "255.255.255.255|--raw ''|--raw no/such/folder|"
                   "--replay err");
}

TEST_F(Collect, TakesNobodyElseForTheBoardUnlessToldTo) {
  std::set<int64_t> numbers;
  struct Case {
    std::string arguments, from, reason;
  };
  for (const auto &[arguments, from, reason] :
       {Case{"", "127.0.0.3", ""},
        {"--any-source", "127.0.0.3", ""},
        {"--timeout 2", "127.0.0.3", ": see --any-source"},
        {"--timeout 2", "127.0.0.1", " that does not begin with the request's number"}}) {
    launch(arguments);
    const std::string number = board_.takeRequest().substr(8);
    uint32_t bigEndian = 0;
    std::copy_n(number.begin(), sizeof bigEndian, reinterpret_cast<char *>(&bigEndian));
    numbers.insert(ntohl(bigEndian));
    board_.connectFrom(from);
    BoardPeer others[10];  // eight may wait
    if (arguments.empty()) {
      EXPECT_LE(board_.takeAcknowledgement(), 0) << "turned away";
      board_.hangUp();
      for (BoardPeer &other : others) {
        other.server = board_.server;
        other.connectFrom("127.0.0.1");
      }
      others[8].sendBytes(message(0, 77, "KB12"));
      others[9].sendBytes("begun");
      others[9].hangUp();
      for (const int i : {0, 8}) EXPECT_LE(others[i].takeAcknowledgement(), 0);
      board_.connectFrom("127.0.0.1");
    }
    if (reason.empty())
      board_.sendRun({message(0, 0, "KB12").replace(8, 4, number), message(1, 1, ""), message(2, 2, "")});
    EXPECT_EQ(command_->status(), reason.empty() ? 0 : 3);
    const std::string missing = "kep-collect: timed out: no connection from 127.0.0.1 port " + board_.port();
    EXPECT_EQ(err(), reason.empty() ? "" : missing + ", but one from " + from + reason + "\n");
    board_.hangUp();
  }
  EXPECT_GT(*numbers.rbegin() - *numbers.begin(), 100'000) << "by the clock, or counted, they would be close together";
}

TEST_F(Collect, EndsWhenItCannotWriteOrNobodyReads) {
  // Where lines are counted their counts are files, too.
  constexpr const char *kSmallFiles = "ulimit -f 1; export GCOV_PREFIX=. GCOV_ERROR_FILE=/dev/null;";
  const FullFifo full("full");
  const Strings messages = {message(0, 77, "KB12"), message(1, 1, ""),
                            message(2, 2, head(0x84, 0, 0, 0) + counted(std::string(1009, 0))), message(2, 3, "")};
  struct Case {
    std::string before, arguments, reason;
    int signal = 0;
  };
  const std::vector<Case> cases = {
      {"", "--raw /dev/full", "cannot write the raw file: No space left on device"},
      {kSmallFiles, "--raw raw", "cannot write the raw file: File too large"},
      {"", "--raw full", "interrupted", SIGTERM},
      {"", ">/dev/full", "cannot write the output"},
      {kSmallFiles, "", "cannot write the output"},
      {"", "--raw closed >&-", "cannot write the output"},
      {"", ">full", "interrupted", SIGINT},
      {"", ">full 2>full", "", SIGTERM},
  };
  for (const auto &[before, arguments, reason, signal] : cases) {
    SCOPED_TRACE(before + arguments);
    command_.emplace("127.0.0.1 --sequence 77 --port " + board_.port() + " " + arguments, before);
    board_.beginVisit();
    board_.sendBytes(joined(messages));
    shutdown(board_.connection, SHUT_WR);
    char acknowledgements[4];
    if (arguments[0] == '>') recv(board_.connection, acknowledgements, sizeof acknowledgements, MSG_WAITALL);
    if (signal != 0) command_->signal(signal);
    EXPECT_EQ(command_->status(), 4);
    EXPECT_NE(err().find(reason), std::string::npos) << err();
    if (arguments.find("2>") == std::string::npos) expectComplaint();
    board_.hangUp();
  }
  EXPECT_EQ(contentOf("closed"), joined(messages)) << "and nothing of what was printed";

  mkfifo("unread", 0600);
  Command unread("127.0.0.1 --raw unread");
  unread.signal(SIGINT);
  EXPECT_EQ(unread.status(), 4);
}

// The first comes before anything else, and is held back until the command can note it.
TEST_F(Collect, AsksNobodyAfterASignalNorWaitsForAName) {
  sigset_t held;
  sigemptyset(&held);
  sigaddset(&held, SIGTERM);
  sigprocmask(SIG_BLOCK, &held, nullptr);
  EXPECT_EQ(run("127.0.0.1 --timeout 1 --port " + board_.port(), "kill -TERM $$;"), 4);
  sigprocmask(SIG_UNBLOCK, &held, nullptr);
  EXPECT_EQ(err(), "kep-collect: interrupted\n");
  char request;
  EXPECT_LT(recv(board_.fd, &request, 1, MSG_DONTWAIT), 0) << "nothing was sent";

  mkfifo("aliases", 0600);  // which the C library opens for a name without a dot, and waits for a writer
  EXPECT_EQ(run("board --timeout 0.05", "export HOSTALIASES=aliases;"), 3);
  EXPECT_EQ(err(), "kep-collect: timed out: no address of board\n");
  Command waiting("board", "export HOSTALIASES=aliases;");
  waiting.signal(SIGINT);
  EXPECT_EQ(waiting.status(), 4);
}

// Printed is what a slow reader takes, but after a signal not for long. Ticks alone are no signal.
TEST_F(Collect, PrintsUntilASignal) {
  std::string stream = message(0, 77, "KB12") + message(1, 1, "");
  for (int32_t i = 2; i < 2000; ++i) stream += message(2, i, head(0x84, 0, 0, 0) + counted(std::string(1009, 0)));
  std::ofstream("stream", std::ios::binary) << stream << message(2, 2000, "");
  mkfifo("fifo", 0600);
  struct Case {
    int signal, pauseUs, status;
    bool isWhole;
  };
  for (const auto &[signal, pauseUs, status, isWhole] :
       {Case{SIGRTMIN, 100, 0, true}, {SIGTERM, 20'000, 4, false}, {SIGINT, 0, 4, true}}) {
    Command command("--replay stream >fifo");
    const int fd = open("fifo", O_RDONLY);
    std::string taken;
    char bytes[4096];
    for (ssize_t size; (size = read(fd, bytes, sizeof bytes)) > 0; usleep(static_cast<useconds_t>(pauseUs))) {
      for (int i = 0; taken.empty() && i < (signal == SIGRTMIN ? 5 : 1); ++i) command.signal(signal);
      taken.append(bytes, static_cast<size_t>(size));
    }
    close(fd);
    EXPECT_EQ(command.status(), status);
    const bool endsWhole = taken.find("2001 messages") != std::string::npos;
    EXPECT_TRUE(pauseUs == 0 || endsWhole == isWhole) << taken.size();
  }
}

TEST_F(Collect, ReplaysUntilDamageOrASignal) {
  EXPECT_EQ(run("--replay /dev/zero"), 1);
  EXPECT_EQ(err(), "kep-collect: damaged at offset 0: a message length of 0 is not within 12 to 1036\n");

  expectOnSignal("--replay", collection()[0] + collection()[1], SIGTERM, golden("begun.text"));
}

// Empty strings make the most values of the fewest bytes; a value of control characters in pieces, sized so that its
// memory has just been doubled at the end, makes most of a single one.
TEST_F(Collect, StaysWithinItsMemory) {
#ifdef KEP_SANITIZED
  GTEST_SKIP() << "a sanitizer takes more";
#endif
  constexpr size_t kMost = 64 << 20;
  const auto keep = [](const std::string &path, const std::string &first, const std::string &record, int perMessage) {
    std::string records;
    for (int i = 0; i < perMessage; ++i) records += record;
    std::string stream = message(0, 77, "KB12") + message(2, 1, first);
    int32_t sequence = 2;
    while (stream.size() + 2000 < kMost) stream += message(2, sequence++, records);
    std::ofstream(path, std::ios::binary)
        << stream << message(2, sequence, head(0x83, 0, 0, 0) + counted("")) << message(2, sequence + 1, "");
  };
  keep("many", "", head(0x83, 0, 0, 0) + counted(""), 68);
  keep("long", head(0x03, 0, 0, 0) + counted(std::string(959, 1)), head(0x03, 0, 0, 0) + counted(std::string(1009, 1)),
       1);
  const std::string limit = "ulimit -v 262144;";
  EXPECT_EQ(run("--replay many >/dev/null", limit), 1);
  EXPECT_EQ(err(), "kep-collect: damaged at offset 15913720: the run goes on beyond 1048576 records\n");
  for (const std::string format : {"json", "csv"}) {
    EXPECT_EQ(run("--replay long >/dev/null --format " + format, limit), 0) << err();
  }
  EXPECT_EQ(run("--replay many >/dev/null", "ulimit -v 65536;"), 4);
  EXPECT_EQ(err(), "kep-collect: std::bad_alloc\n");
}

TEST_F(Collect, WatchesUntilInterruptedWhateverBecomesOfARun) {
  launch("--sequence 77 --watch 0.001 --names-dir none");
  board_.beginVisit();
  board_.sendRun(collection());
  board_.takeRequest();
  command_->signal(SIGINT);
  EXPECT_EQ(command_->status(), 4) << "within the last run";

  std::ofstream("names") << "item.fan.tests.1 = { name = 'speed', pass = 1 }";
  launch("--sequence 77 --watch 0.001 --selftest --until-pass --names names");
  for (const int speed : {0, 1}) {
    board_.beginVisit();
    board_.sendRun({message(0, 77, "KB12"),
                    message(2, 1, head(0x83, 65535, 0, 0) + counted("fan") + head(0x81, 3, 0, 1) + word(speed)),
                    message(2, 2, "")});
  }
  EXPECT_EQ(command_->status(), 0);
  EXPECT_NE(out().find("FAIL  1 of 1 tests failed, 1 of 1 items\n"), std::string::npos) << out();
  EXPECT_NE(out().find("\nrun 2, "), std::string::npos) << out();
}

TEST_F(Collect, WatchesForWhatChanges) {
  const Strings before = shownRun();
  const Strings after = {
      message(0, 77, "KB12"),
      message(1, 1, before[1].substr(12, before[1].size() - 23)),
      message(2, 2, number(0, 0, 1, 123456789) + number(0, 0, 2, 1)),
      message(2, 3, text(1, 1, 1, "wan") + number(1, 1, 2, 672176260) + text(1, 4, 1, "eth1")),
      message(2, 4, before[4].substr(12 + 28) + text(2, 2, 1, "11/23 03:50:23") + text(2, 2, 1, "more")),
      message(2, 5, "")};
  std::string all;
  for (const std::string arguments : {"", "--names", "--selftest --names"}) {
    const bool isTest = arguments.find("--selftest") == 0, isNamed = arguments.find("--names") != std::string::npos;
    const Strings first = isTest ? testRun(1, "fan") : before, second = isTest ? testRun(2, "disk") : after;
    for (const std::string format : {"text", "json", "csv"}) {
      const std::string options = "--format " + format + " " + arguments;
      launch("--watch 0.001 --only-changes --sequence 77 " + options + (isNamed ? " " KEP_GOLDEN "/shown.toml" : ""));
      for (const Strings &messages : {first, first, second, Strings(first.begin(), first.begin() + 2), first}) {
        board_.beginVisit();
        board_.sendRun(messages);
      }
      board_.takeRequest();
      command_->signal(SIGINT);
      EXPECT_EQ(command_->status(), 4) << "within the last run";
      all += options + "\n" + out();
    }
  }
  EXPECT_EQ(std::regex_replace(all, time_, "TIME"), golden("changes"));
}

TEST_F(Collect, AsksManyBoardsAtOnceAndPrintsOneAfterTheOther) {
  const std::string absent = Peer().port();
  std::string all;
  for (const std::string format : {"text", "json", "csv"}) {
    BoardPeer other;
    launch("127.0.0.1:" + other.port() + " 127.0.0.1:" + absent + " --watch 1000 --sequence 77 --format " + format);
    board_.beginVisit();
    other.beginVisit();
    other.sendRun({collection()[0]});
    board_.sendRun(collection());
    EXPECT_EQ(waitFor("err", absent + ": (Connection) refused"), "Connection") << err();
    command_->signal(SIGINT);
    EXPECT_EQ(command_->status(), 3) << "the highest";
    all += out() + err();
    for (const auto &[port, name] : {std::pair{board_.port(), "A"}, {other.port(), "B"}, {absent, "C"}}) {
      all = std::regex_replace(all, std::regex("\\b" + port + "\\b"), name);
    }
  }
  EXPECT_EQ(std::regex_replace(all, time_, "TIME"), golden("many"));
}

TEST_F(Collect, HelpsAsItsManPageDoes) { expectHelpAsInManPage(); }

}  // namespace
