// fleet_command_test.cpp: the command kep-fleet, with boards that the test plays.

#include <chrono>
#include <optional>

#include "played_board.hpp"
#include "tools/command.hpp"

namespace {

class FleetCommand : public CommandTest {
 protected:
  static void write(const std::string &path, const std::string &text) { std::ofstream(path) << text; }

  // Nothing in it is at a fixed port.
  static std::string configOf(const PlayedBoard &board, const std::string &more = "") {
    return "listen = '127.0.0.1:0'\nstore = 'kept/fleet.db'\nhttp.address = '127.0.0.1:0'\n" + more +
           "[[board]]\nname = 'b'\nhost = '127.0.0.1:" + std::to_string(board.port) + "'\n[[poll]]\nevery = '200ms'\n";
  }

  // Asks until the page has it.
  static void expectAnswer(const std::string &port, const std::string &path, const std::string &part) {
    std::string answer;
    for (int i = 0; i < kPatienceMs / 100 && answer.find(part) == std::string::npos; ++i, usleep(100'000)) {
      const Connection connection(static_cast<uint16_t>(std::stoi("0" + port)));
      connection.say("GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
      char bytes[4096];
      answer.clear();
      for (ssize_t size; (size = recv(connection.fd, bytes, sizeof bytes, 0)) > 0;) {
        answer.append(bytes, static_cast<size_t>(size));
      }
    }
    EXPECT_NE(answer.find(part), std::string::npos) << path << '\n' << answer;
  }
};

TEST_F(FleetCommand, ChecksItsConfiguration) {
  write("good.toml", "store = 'x'\n[[board]]\nhost = 'a'\nport = 9\nnames = 'names.toml'");
  write("bad.toml", "store = 'x'\n[[board]]\nhost = 'a'\nname = 1");
  write("names.toml", "[item.a.keys]\n1 = { name = 'x' }");
  EXPECT_EQ(run("--config good.toml --check"), 0);
  EXPECT_EQ(out(), "good: 1 board, 1 schedule\n");
  EXPECT_EQ(run("--config " KEP_EXAMPLE " --check"), 0) << err();
  std::ifstream page(KEP_GUIDE);
  std::string part;
  for (std::filesystem::create_directory("names"), write("token", "x"); std::getline(page, part, '`');) {
    if (part.rfind("toml\n", 0) != 0) continue;
    write("guide.toml", part.substr(5));
    EXPECT_EQ(run("--config guide.toml --check"), 0) << part << err();
  }
  EXPECT_EQ(run("--config bad.toml --check"), 1);
  EXPECT_EQ(err(), "kep-fleet: bad.toml:4: name: expected a text, not a number\n");
  std::filesystem::remove("names.toml");
  EXPECT_EQ(run("--config good.toml"), 1);
  EXPECT_EQ(err(), "kep-fleet: cannot open names.toml: No such file or directory\n");
  write("names.toml", "[item.a.keys]\n1 = {}");
  EXPECT_EQ(run("--config good.toml"), 1);
  EXPECT_EQ(err(), "kep-fleet: names.toml:2: no name; expected name = \"...\"\n");
  expectWrongUsage("",
                   "|--check|a --config good.toml|backup|runs --check --config good.toml|export|runs a b|"
                   "runs --from yesterday|runs --to 7w|export a --format text|--config ''");
  expectHelpAsInManPage();
}

TEST_F(FleetCommand, CollectsUntilItIsEnded) {
  const PlayedBoard board(PlayedBoard::answer);
  write("fleet.toml", configOf(board, "log = { level = 'debug', format = 'json' }\n"));
  Command server("--config fleet.toml");
  EXPECT_NE(waitFor("err", "(\"message\":\"b: type 0, whole)"), "");
  write("fleet.toml", "broken");
  server.signal(SIGHUP);
  EXPECT_NE(waitFor("err", "(the configuration stays as it is: fleet.toml:1)"), "");
  write("fleet.toml", configOf(board, "http.hosts = ['b']\n[[board]]\nhost = '127.0.0.1:1'\n"));
  server.signal(SIGHUP);
  EXPECT_NE(waitFor("err", "(\\[http\\] and the log's format change at the next start)"), "");
  EXPECT_NE(waitFor("err", "(read again: 2 boards)"), "");
  const auto before = std::chrono::steady_clock::now();
  server.signal(SIGTERM);
  EXPECT_EQ(server.status(), 0) << err();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));

  const std::string time = "2\\d{3}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z";
  const std::vector<std::pair<std::string, std::string>> forms = {
      {"text", "(\\d+  " + time + "  b  type 0  whole  \\d+ ms  8 messages  \\d+ bytes\n)+"},
      {"json",
       "\\{\"row\":\"layout\",\"layout\":\"kep-fleet-runs\",\"version\":1\\}\n"
       "(\\{\"row\":\"run\",\"id\":\\d+,\"board\":\"b\",\"started\":\"" +
           time + "\",\"type\":\"0\",\"outcome\":\"whole\",.*\"reason\":\"\"\\}\n)+"},
      {"csv", "id,board,started,type,outcome,duration_ms,messages,bytes,reason\n(\\d+,b," + time +
                  ",0,whole,\\d+,8,\\d+,\n)+"}};
  for (const auto &[format, form] : forms) {
    EXPECT_EQ(run("runs b --config fleet.toml --from 1h --format " + format), 0);
    EXPECT_TRUE(std::regex_match(out(), std::regex(form))) << out();
  }
  EXPECT_EQ(run("runs --config fleet.toml --to 2026-01-01"), 0);
  EXPECT_EQ(out(), "");
  EXPECT_EQ(run("export b --config fleet.toml"), 0);
  EXPECT_NE(out().find("\"row\":\"run\""), std::string::npos);
  EXPECT_NE(out().find("\"name\":\"log\""), std::string::npos);
  EXPECT_EQ(run("backup copy.db --config fleet.toml"), 0) << err();
  EXPECT_TRUE(std::filesystem::exists("copy.db"));
  EXPECT_EQ(run("backup copy.db --config fleet.toml"), 1);
  expectComplaint();
  EXPECT_EQ(run("runs"), 1) << "there is no store";
}

TEST_F(FleetCommand, ShowsWhatItKnows) {
  std::optional<PlayedBoard> board(std::in_place, PlayedBoard::answer);
  PlayedBoard stranger(PlayedBoard::answer);
  const std::string config = configOf(*board, "http.probe_any = true\n"),
                    probed = "/probe?target=localhost:" + std::to_string(stranger.port);
  write("fleet.toml", config);
  for (const bool isAgain : {false, true}) {
    std::filesystem::remove("err");
    Command server("--config fleet.toml");
    const std::string port = waitFor("err", "page is at http://127.0.0.1:([0-9]+)/");
    if (!isAgain) {
      expectAnswer(port, "/metrics", R"(kep_up{board="b",type="0"} 1)");
      expectAnswer(port, probed, "kep_up{board=\"localhost:");
      board.reset();
      EXPECT_NE(waitFor("err", "b: (lost)"), "");
    }
    expectAnswer(port, "/metrics", R"(kep_up{board="b",type="0"} 0)");
    expectAnswer(port, "/sd", R"("__meta_kep_board":"b")");
    expectAnswer(port, "/api/events?name=b", R"("kind":"lost")");
    for (const std::string key : {"listen", "http.address"}) {
      const std::regex place(key + " = '127.0.0.1:0'"), store("kept/fleet.db");
      const std::string taken = std::regex_replace(config, place, key + " = '127.0.0.1:" + port + "'");
      write("taken.toml", std::regex_replace(taken, store, "other.db"));
      EXPECT_EQ(run("--config taken.toml 2>taken"), 1) << key;
    }
    server.signal(SIGTERM);
    EXPECT_EQ(server.status(), 0);
  }
}

TEST_F(FleetCommand, EndsAtOnceWhileItsStoreIsOpened) {
  const int silent = socket(AF_INET, SOCK_STREAM, 0);  // takes connections, and says nothing
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  bind(silent, reinterpret_cast<const sockaddr *>(&address), size);
  listen(silent, 1);
  getsockname(silent, reinterpret_cast<sockaddr *>(&address), &size);
  write("fleet.toml", "store = 'postgresql://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) +
                          "/kep?connect_timeout=100'\nboard = [{ host = '127.0.0.1' }]\n");
  Command server("--config fleet.toml");
  const int connection = accept(silent, nullptr, nullptr);
  const auto before = std::chrono::steady_clock::now();
  server.signal(SIGTERM);
  EXPECT_EQ(server.status(), 0) << err();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
  close(connection);
  close(silent);
}

}  // namespace
