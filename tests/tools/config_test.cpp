// config_test.cpp: the values file, the text of a query, and the command kep-config over loopback.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <utility>
#include <vector>

#include "command.hpp"
#include "ini.hpp"
#include "query.hpp"

namespace {

using namespace kepconfig;
using Strings = std::vector<std::string>;

TEST(ConfigIni, ReadsValues) {
  const std::string longest(1000, 'v');
  std::istringstream in("; comment\n# [comment]\n \t\n[net]\r\n  mtu\t=  1400 \r\nname = \"a b\" ; = [c]\n" +
                        ("[ log ]\nmtu=\n#mtu = 2\nlong = " + longest) + "  \n[net]\nMTU = 9\x80\nlast =  x");
  std::vector<Strings> read;
  for (const auto &[name, setting] : parseIni(in)) {
    read.push_back({name.first, name.second, setting.value, std::to_string(setting.line)});
  }
  EXPECT_EQ(read, (std::vector<Strings>{{"log", "long", longest, "10"},
                                        {"log", "mtu", "", "8"},
                                        {"net", "MTU", "9\x80", "12"},
                                        {"net", "last", "x", "13"},
                                        {"net", "mtu", "1400", "5"},
                                        {"net", "name", "\"a b\" ; = [c]", "6"}}));
}

TEST(ConfigIni, TellsTheLineThatIsWrong) {
  const std::string zeroByte("[a]\nk = v\0w\n", 12);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"k = v\n[a]\n", "1: a key before the first section"},
      {"[a]\n\nword\n", "3: neither [section] nor key = value nor a comment"},
      {"[a]\n = v\n", "2: a key without a name"},
      {"[a]\nk l = v\n", "2: a key with a blank in it can never be asked for"},
      {"[a]\nk = 1\n[b]\nk = 2\n[a]\n; again\nk = 1\n", "7: the key stands in line 2 already"},
      {"[a]\nk = " + std::string(1001, 'v'), "2: a value of 1001 bytes; an answer holds 1000"},
      {"[a]\n" + std::string(989, 'k') + " = 1", "2: a query for this key would be too long"},
      {zeroByte, "2: a zero byte"},
      {"[ ]\n", "1: a section without a name"},
      {"[a b]\n", "1: a section with a blank in it can never be asked for"},
      {"[" + std::string(989, 's') + "]", "1: a query for this section would be too long"},
      {"[a\nk = v]\n", "1: a section's line must end with its only ]"},
      {"[a] ; comment\n", "1: a section's line must end with its only ]"},
  };
  for (const auto &[text, expected] : cases) {
    std::istringstream in(text);
    try {
      parseIni(in);
      ADD_FAILURE() << "taken for good: " << text;
    } catch (const IniError &error) {
      EXPECT_EQ(std::to_string(error.line()) + ": " + error.what(), expected);
    }
  }
}

TEST(ConfigQuery, IsReadAsABoardWritesIt) {
  for (const std::string defaultValue : {"1500", "", " ", "a  b ", "\n", "=>config a b c"}) {
    const std::optional<Query> query = parseQuery("=>config net mtu " + defaultValue);
    ASSERT_TRUE(query);
    EXPECT_EQ(query->section + "/" + query->key, "net/mtu");
    EXPECT_EQ(query->defaultValue, defaultValue);
    EXPECT_EQ(formatQuery(*query), "=>config net mtu " + defaultValue);
  }
  EXPECT_TRUE(parseQuery("=>config net mtu " + std::string(983, '1')));
  EXPECT_FALSE(parseQuery("=>config net mtu " + std::string(984, '1')));
  for (const char *text : {"", "=>", "=>config", "=>config ", "=>config net", "=>config net ", "=>config net mtu",
                           "=>config  mtu 1", "=>config net  1", "=>config\tnet mtu 1", "=>Config net mtu 1",
                           " =>config net mtu 1", "=>configure net mtu 1"}) {
    EXPECT_FALSE(parseQuery(text)) << text;
  }
}

// A socket of the test's own, which plays the board or the server.
class Peer {
 public:
  Peer() {
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), size), 0);
    getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size);
    port_ = ntohs(address.sin_port);
  }
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;
  ~Peer() { close(fd_); }

  std::string port() const { return std::to_string(port_); }
  int lastSender() const { return lastSender_; }  // its port

  void send(int port, const std::string &datagram) const {
    const sockaddr_in address = loopback(port);
    EXPECT_EQ(
        sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&address), sizeof address),
        static_cast<ssize_t>(datagram.size()));
  }

  std::string receive() {
    char bytes[2000];
    sockaddr_in from{};
    socklen_t fromSize = sizeof from;
    pollfd entry = {fd_, POLLIN, 0};
    if (poll(&entry, 1, kPatienceMs) != 1) return "(nothing)";
    const ssize_t size = recvfrom(fd_, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &fromSize);
    lastSender_ = ntohs(from.sin_port);
    return {bytes, static_cast<size_t>(std::max<ssize_t>(size, 0))};
  }

 private:
  int fd_ = socket(AF_INET, SOCK_DGRAM, 0);
  int port_ = 0;
  int lastSender_ = 0;
};

// One run of kep-config; its output and diagnostics go to files that begin with `path`.
class KepConfig : public Command {
 public:
  KepConfig(const std::string &path, Strings arguments, const std::string &outPath = "")
      : Command(KEP_CONFIG_PROGRAM, std::move(arguments), outPath.empty() ? path + ".out" : outPath, path + ".err") {}

  // The port that a server took, told as soon as it serves.
  int port() const {
    const std::regex told("serving .* port ([0-9]+)\n");
    std::smatch match;
    std::string text;
    for (int i = 0; i < kPatienceMs && !std::regex_search(text, match, told); ++i) {
      usleep(1000);
      text = err();
    }
    return match.empty() ? 0 : std::stoi(match[1]);
  }
};

class ConfigCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = ::testing::TempDir() + "kep-config-XXXXXX";
    ASSERT_NE(mkdtemp(folder_.data()), nullptr);
    file_ = folder_ + "/ini";
    write("[net]\nmtu = 1400\nempty =\nlong = " + std::string(1000, 'v') + "\n");
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  void write(const std::string &text) const { std::ofstream(file_, std::ios::binary) << text; }

  // Asks for the MTU, beside a server that runs; returns the status and the output.
  std::pair<int, std::string> askMtu(const std::string &server, int port, const std::string &timeout) {
    KepConfig device(folder_ + "/device", {"--server", server, "--port", std::to_string(port), "--timeout", timeout,
                                           "--query", "net", "mtu", "1"});
    const int status = device.status();
    return {status, device.out()};
  }

  std::string folder_;
  std::string file_;
};

using Answer = std::pair<int, std::string>;

TEST_F(ConfigCommand, AnswersWhatItKnowsAndLogsWhatItIsAsked) {
  KepConfig server(folder_ + "/command", {file_, "--listen", "127.0.0.1", "--port", "0"});
  const int port = server.port();
  Peer board;
  // What is not answered comes first: an answer to it would be taken for the one expected.
  for (const char *silent :
       {"", "=>config net", "=>config net vlan 1", "=>config log mtu 1", "=>config net MTU \x1b["}) {
    board.send(port, silent);
  }
  board.send(port, "=>config net mtu " + std::string(984, '1'));
  board.send(port, "=>config net mtu a\\b ");
  EXPECT_EQ(board.receive(), "1400");
  EXPECT_EQ(board.lastSender(), port);
  board.send(port, "=>config net empty 5");
  EXPECT_EQ(board.receive(), "");
  board.send(port, "=>config net long \xff");
  EXPECT_EQ(board.receive(), std::string(1000, 'v'));
  board.send(port, "\x1b[2J\x7f\xff\\");

  EXPECT_EQ(askMtu("127.0.0.1", port, "20"), Answer(0, "1400\n"));
  server.signal(SIGTERM);
  EXPECT_EQ(server.status(), 0);
  const std::string log = std::regex_replace(server.out(), std::regex("127.0.0.1:" + board.port() + " "), "@");
  EXPECT_EQ(log.substr(0, log.find("127.0.0.1:")),
            "@malformed \n@malformed =>config net\n@silent net vlan\n@silent log mtu\n@silent net MTU\n"
            "@malformed =>config net mtu " +
                std::string(984, '1') + "\n@value net mtu 1400\n@value net empty \n@value net long " +
                std::string(1000, 'v') + "\n@malformed \\x1b[2J\\x7f\\xff\\\\\n");
}

TEST_F(ConfigCommand, EchoesTheDefaultOfAnUnknownKey) {
  KepConfig server(folder_ + "/command", {file_, "--port", "0", "--listen", "127.0.0.1", "--echo-default"});
  const int port = server.port();
  Peer board;
  board.send(port, "=>config net");
  for (const std::string defaultValue : {"a  b ", "", "\t\\"}) {
    board.send(port, "=>config net vlan " + defaultValue);
    EXPECT_EQ(board.receive(), defaultValue);
  }
  board.send(port, "=>config net mtu 1");
  EXPECT_EQ(board.receive(), "1400");
  server.signal(SIGINT);
  EXPECT_EQ(server.status(), 0);
  const std::string log = std::regex_replace(server.out(), std::regex("127.0.0.1:[0-9]+ "), "");
  EXPECT_EQ(log,
            "malformed =>config net\ndefault net vlan a  b \ndefault net vlan \ndefault net vlan \\x09\\\\\n"
            "value net mtu 1400\n");
}

TEST_F(ConfigCommand, HearsBroadcastsUnlessItListensAtOneAddress) {
  KepConfig anywhere(folder_ + "/command", {file_, "--port", "0"});
  EXPECT_EQ(askMtu("127.255.255.255", anywhere.port(), "20"), Answer(0, "1400\n"));
  KepConfig single(folder_ + "/single", {file_, "--port", "0", "--listen", "127.0.0.1"});
  EXPECT_EQ(askMtu("127.255.255.255", single.port(), "0.1"), Answer(3, "1\n"));
}

TEST_F(ConfigCommand, AsksAsABoardDoes) {
  Peer server;
  const Peer other;
  const auto asking = [&](const std::string &defaultValue) {
    return Strings{"--server", "127.0.0.1", "--port", server.port(), "--timeout",
                   "20",       "--query",   "net",    "mtu",         defaultValue};
  };
  // The default is taken as it stands, whatever it looks like, and the answer from wherever it comes.
  for (const std::string defaultValue : {"1500", "", "-1", "--help", " a  b ", "[a,b]", "{}"}) {
    KepConfig device(folder_ + "/command", asking(defaultValue));
    EXPECT_EQ(server.receive(), "=>config net mtu " + defaultValue);
    other.send(server.lastSender(), "a\tb ");
    EXPECT_EQ(device.status(), 0) << device.err();
    EXPECT_EQ(device.out() + device.err(), "a\tb \n");
  }
  for (const auto &[reply, printed] :
       {std::pair(std::string(), std::string("7")), std::pair(std::string(1001, 'x'), std::string(1000, 'x'))}) {
    KepConfig device(folder_ + "/command", asking("7"));
    server.receive();
    server.send(server.lastSender(), reply);
    EXPECT_EQ(device.status(), 0);
    EXPECT_EQ(device.out(), printed + "\n");
    EXPECT_EQ(device.err().empty(), !reply.empty());
  }
  KepConfig interrupted(folder_ + "/command", asking("7"));
  server.receive();
  interrupted.signal(SIGTERM);
  EXPECT_EQ(interrupted.status(), 4);
  EXPECT_EQ(interrupted.out() + interrupted.err(), "kep-config: interrupted\n");
}

TEST_F(ConfigCommand, TellsWhatWentWrong) {
  const Peer silent;
  KepConfig unanswered(folder_ + "/command", {"--query", "a", "b", "c", "--server", "127.0.0.1", "--port",
                                              silent.port(), "--timeout", "0.05"});
  EXPECT_EQ(unanswered.status(), 3);
  EXPECT_EQ(unanswered.out(), "c\n");
  EXPECT_EQ(unanswered.err(), "kep-config: no answer from 127.0.0.1 port " + silent.port() + "\n");

  const std::vector<Strings> wrong = {
      {},
      {folder_},
      {file_, "--port", silent.port(), "--listen", "127.0.0.1"},
      {file_, "--listen", "203.0.113.1"},
      {file_, "--listen", "0x7f.0.0.1"},
      {file_, "--server", "127.0.0.1"},
      {file_, "--query", "a", "b", "c"},
      {"--query", "a", "b", "c", "--server", "localhost"},
      {"--query", "a", "b", "c", "--port", "0"},
      {"--query", "a", "b", "c", "--timeout", "nan"},
      {"--query", "a", "b"},
      {"--query", "", "b", "c"},
      {"--query", "a", "b b", "c"},
      {"--query", "a b", "b", "c"},
      {"--query", "a", "b", std::string(988, 'c')},
  };
  for (const Strings &arguments : wrong) {
    KepConfig command(folder_ + "/command", arguments);
    EXPECT_EQ(command.status(), 2) << ::testing::PrintToString(arguments);
    EXPECT_NE(command.err(), "");
    EXPECT_EQ(command.out(), "");
  }

  KepConfig full(folder_ + "/command", {file_, "--listen", "127.0.0.1", "--port", "0"}, "/dev/full");
  EXPECT_EQ(askMtu("127.0.0.1", full.port(), "20").first, 0);
  EXPECT_EQ(full.status(), 4);
  EXPECT_NE(full.err().find("cannot write"), std::string::npos);

  write("[net]\nmtu\n");
  KepConfig damaged(folder_ + "/command", {file_, "--port", "0"});
  EXPECT_EQ(damaged.status(), 1);
  EXPECT_EQ(damaged.err(), file_ + ":2: neither [section] nor key = value nor a comment\n");
}

// The names in `text` that `pattern` captures, in order and each once.
TEST_F(ConfigCommand, HelpsAsItsManPageDoes) {
  KepConfig help(folder_ + "/command", {"--help"});
  ASSERT_EQ(help.status(), 0);
  const std::string page = contentOf(KEP_CONFIG_MAN_PAGE);
  EXPECT_EQ(namesIn(help.out(), "[ ,]--([a-z-]+)"), namesIn(page, "Fl (?:h , )?-([a-z-]+)"));
  EXPECT_EQ(namesIn(help.out(), "\n  ([0-9])  "), namesIn(page, "\n\\.It ([0-9])\n"));
}

}  // namespace
