// config_test.cpp: the command kep-config over loopback.

#include <optional>

#include "command.hpp"

namespace {

const std::string kLongest(1000, 'v');

class ConfigCommand : public CommandTest {
 protected:
  void SetUp() override {
    CommandTest::SetUp();
    write(
        "\xEF\xBB\xBF; comment\n# [comment]\n \t\n[net]\r\n  mtu\t=  1400 \r\nname = \"a b\" ; = [c]\n[ log "
        "]\nmtu=\n#mtu = 2\n" +
        ("long = " + kLongest + "  \n[net]\nMTU = 9\x80\nlast =  x"));
  }

  static void write(const std::string &text) { std::ofstream("ini", std::ios::binary) << text; }

  // A server at a port of its own, which it tells as soon as it serves.
  static Command server(const std::string &arguments) {
    std::filesystem::remove("server.err");
    return Command("ini --port 0 >server.out 2>server.err " + arguments);
  }
  static std::string serverPort() { return waitFor("server.err", "serving .* port ([0-9]+)\n"); }

  // Asks for the MTU, and returns the status and the answer.
  static std::string askMtu(const std::string &arguments) {
    const int status = run("--query net mtu 1 " + arguments + " --port " + serverPort());
    return std::to_string(status) + ": " + out();
  }
};

struct Exchange {
  std::string query, logged;
  std::optional<std::string> answer;
};

TEST_F(ConfigCommand, AnswersWhatItKnowsAndLogsWhatItIsAsked) {
  const std::string askMtu = "=>config net mtu ";
  // What is not answered comes first: an answer to it would be taken for the one expected.
  std::vector<Exchange> strict = {
      {"\x1b[2J\x7f\xff\\", "malformed \\x1b[2J\\x7f\\xff\\\\", {}},
      {"=>config net vlan 1", "silent net vlan", {}},
      {"=>config log name 1", "silent log name", {}},
      {"=>config net MTU\x1b [", "silent net MTU\\x1b", {}},
      {askMtu + std::string(983, '1'), "value net mtu 1400", "1400"},
      {"=>config net name a  b ", "value net name \"a b\" ; = [c]", "\"a b\" ; = [c]"},
      {"=>config net MTU a\\b", "value net MTU 9\\x80", "9\x80"},
      {"=>config net last 1", "value net last x", "x"},
      {"=>config log mtu 5", "value log mtu ", ""},
      {"=>config log long \xff", "value log long " + kLongest, kLongest},
  };
  for (const std::string &text :
       Strings{"", "=>config ", "=>config net", "=>config net mtu", "=>config  mtu 1", "=>config net  1",
               "=>Config net mtu 1", "=>configure net mtu 1", askMtu + std::string(984, '1')}) {
    strict.insert(strict.begin(), {text, "malformed " + text, {}});
  }
  const std::vector<Exchange> echoing = {
      {"=>config net", "malformed =>config net", {}},  {"=>config net vlan a  b ", "default net vlan a  b ", "a  b "},
      {"=>config net vlan ", "default net vlan ", ""}, {"=>config net vlan \t\\", "default net vlan \\x09\\\\", "\t\\"},
      {askMtu + "1", "value net mtu 1400", "1400"},  // a value goes before the default
  };
  for (const bool echoes : {false, true}) {
    Command command = server(echoes ? "--listen 127.0.0.1 --echo-default" : "--listen 127.0.0.1");
    Peer board;
    sockaddr_in address = board.address;
    address.sin_port = htons(static_cast<uint16_t>(std::stoi("0" + serverPort())));
    std::string log;
    for (const auto &[query, logged, answer] : echoes ? echoing : strict) {
      board.send(query, address);
      log += "127.0.0.1:" + board.port() + " " + logged + "\n";
      if (!answer) continue;
      EXPECT_EQ(board.receive(), *answer);
      EXPECT_EQ(board.sender.sin_port, address.sin_port);
    }
    command.signal(echoes ? SIGINT : SIGTERM);
    EXPECT_EQ(command.status(), 0);
    EXPECT_EQ(contentOf("server.out"), log);
  }
}

TEST_F(ConfigCommand, HearsBroadcastsUnlessItListensAtOneAddress) {
  const Command anywhere = server("");
  EXPECT_EQ(askMtu("--server 127.255.255.255 --timeout 20"), "0: 1400\n");
  const Command single = server("--listen 127.0.0.1");
  EXPECT_EQ(askMtu("--server 127.255.255.255 --timeout 0.1"), "3: 1\n");
  EXPECT_EQ(askMtu("--server 127.0.0.1"), "0: 1400\n");
}

TEST_F(ConfigCommand, ReadsItsFileAgainUnlessThatIsBroken) {
  Command command = server("--listen 127.0.0.1");
  EXPECT_EQ(askMtu("--server 127.0.0.1"), "0: 1400\n");
  for (const auto &[text, told] : {std::pair{"[net]\nmtu=9000\n", "read ini again"},
                                   {"[net]\nmtu\n", "ini:2: neither .*; the values stay as they are"}}) {
    write(text);
    command.signal(SIGHUP);
    EXPECT_NE(waitFor("server.err", "(kep-config: " + std::string(told) + "\n)"), "");
    EXPECT_EQ(askMtu("--server 127.0.0.1"), "0: 9000\n");
  }
  command.signal(SIGTERM);
  EXPECT_EQ(command.status(), 0);
}

TEST_F(ConfigCommand, AsksAsABoardDoes) {
  Peer server;
  const Peer other;
  const auto asking = [&](const std::string &defaultValue) {
    return "--server 127.0.0.1 --timeout 20 --port " + server.port() + " --query net mtu '" + defaultValue + "'";
  };
  // The default is taken as it stands, whatever it looks like, and the answer from wherever it comes.
  for (const auto &[defaultValue, reply] : std::vector<std::pair<std::string, std::string>>{
           {"1500", "a\tb "}, {"", "9"}, {"--help", "9"}, {"[a,b]", "9"}, {" a  b ", kLongest + "v"}, {"-1", ""}}) {
    Command device(asking(defaultValue));
    EXPECT_EQ(server.receive(), "=>config net mtu " + defaultValue);
    other.send(reply, server.sender);
    EXPECT_EQ(device.status(), 0);
    EXPECT_EQ(out(), (reply.empty() ? defaultValue : reply.substr(0, 1000)) + "\n");
    EXPECT_EQ(err(), reply.empty() ? "kep-config: the answer is empty: a board takes the default\n" : "");
  }
  Command interrupted(asking("7"));
  server.receive();
  interrupted.signal(SIGTERM);
  EXPECT_EQ(interrupted.status(), 4);
  EXPECT_EQ(out() + err(), "kep-config: interrupted\n");
}

TEST_F(ConfigCommand, TellsWhatWentWrong) {
  const Peer silent;
  EXPECT_EQ(run("--query a b c --server 127.0.0.1 --timeout 0.05 --port " + silent.port()), 3);
  EXPECT_EQ(out(), "c\n");
  EXPECT_EQ(err(), "kep-config: no answer from 127.0.0.1 port " + silent.port() + "\n");
  expectWrongUsage("", "|.|--query a b|--query '' b c|--query a 'b b' c|--query 'a b' b c|--query a b " + kLongest);
  expectWrongUsage("ini ", "--listen 127.0.0.1 --port 0" + silent.port() +
                               "|--listen 203.0.113.1|--listen 0x7f.0.0.1|--port 0x10|--server 127.0.0.1|"
                               "--query a b c");
  expectWrongUsage("--query a b c ", "--server localhost|--server 300.1.1.1|--port 0|--timeout nan|--timeout 0x1");
}

TEST_F(ConfigCommand, EndsWhenItCannotWriteOrNobodyReads) {
  const FullFifo full("full");
  // The answer goes out in front of the line that tells of it.
  for (const auto &[output, signal] : {std::pair{">/dev/full", 0}, {">&-", 0}, {">full", SIGTERM}, {">full", SIGINT}}) {
    Command command = server(std::string("--listen 127.0.0.1 ") + output);
    EXPECT_EQ(askMtu("--server 127.0.0.1 --timeout 20"), "0: 1400\n");
    if (signal != 0) command.signal(signal);
    EXPECT_EQ(command.status(), 4) << output;
    EXPECT_NE(contentOf("server.err").find(signal != 0 ? "interrupted" : "cannot write"), std::string::npos);
    expectComplaint("server.err");
  }

  mkfifo("unwritten", 0600);
  Command unwritten("unwritten");
  unwritten.signal(SIGTERM);
  EXPECT_EQ(unwritten.status(), 4);
  EXPECT_EQ(err(), "kep-config: interrupted\n");
}

TEST_F(ConfigCommand, TellsTheLineThatIsWrong) {
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
      {"[" + std::string(989, 's') + "]", "1: a query for this section would be too long"},
      {"[a\nk = v]\n", "1: a section's line must end with its only ]"},
      {"\n\xEF\xBB\xBF[a]\n", "2: neither [section] nor key = value nor a comment"},
      {"[a] ; comment\n", "1: a section's line must end with its only ]"},
  };
  for (const auto &[text, expected] : cases) {
    write(text);
    EXPECT_EQ(run("ini --port 0 --listen 127.0.0.1"), 1) << text;
    EXPECT_EQ(err(), "kep-config: ini:" + expected + "\n");
  }
  EXPECT_EQ(run("/dev/zero"), 1);
  EXPECT_EQ(err(), "kep-config: /dev/zero: more than 16 MiB\n");
}

TEST_F(ConfigCommand, HelpsAsItsManPageDoes) { expectHelpAsInManPage(); }

}  // namespace
