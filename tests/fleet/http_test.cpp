// http_test.cpp: the HTTP side over real sockets, on a real store: who may do what, what is told, and that nobody can
// hold it up.
#include "kep-fleet/http.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "server/board_stream.hpp"

namespace kepfleet {

namespace {

using Json = nlohmann::json;

constexpr const char *kNames = R"([item.ports]
sections = { label = "port", names = { 1 = "eth0" } }
[item.ports.keys]
1 = { name = "received", unit = "B", kind = "counter" }
2 = { name = "heat", unit = "°C", scale = 0.1 }
3 = { name = "link", states = { 0 = "down", 1 = "up" } }
4 = { name = "log", kind = "log" }
[item.ports.tests]
1 = { name = "rail", unit = "V", scale = 0.001, pass = { min = 4.9 } }
2 = { name = "fan", pass = 1 }
)";

std::string integer(int32_t section, int32_t key, int64_t value) {
  return board::head(0x81, 1, section, key) + board::word(value);
}

std::string text(int32_t key, const std::string &value) { return board::head(0x83, 1, 1, key) + board::counted(value); }

std::string collection(int64_t received, int64_t heat, const std::string &more = "") {
  return board::joined({board::message(0, 77, std::string("\x0b\x01\0\0", 4)),
                        board::message(1, 1, board::word(1) + board::counted("ports")),
                        board::message(2, 2, integer(1, 1, received) + integer(1, 2, heat) + more),
                        board::message(2, 3, "")});
}

std::string selfTest(int64_t millivolts) {
  return board::joined(
      {board::message(0, 77, std::string("\x0b\x01\0\0", 4)),
       board::message(2, 1, board::head(0x83, 65535, 0, 0) + board::counted("ports") + integer(0, 1, millivolts)),
       board::message(2, 2, "")});
}

int64_t now() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

Run runOf(int64_t started, const std::string &stream, int type = 0) {
  Run run;
  run.board = "pump <1>";
  run.started = started;
  run.type = type;
  run.stream = stream;
  run.outcome = stream.empty() ? Outcome::kNoAnswer : Outcome::kWhole;
  return run;
}

// Stands in for the side that collects: each run is made at once.
struct PlayedControl : Control {
  Boards &boards;
  Asked asked = Asked::kYes;
  std::string test = selfTest(4310);
  explicit PlayedControl(Boards &fleet) : boards(fleet) {}
  Asked ask(const std::string &, int type, Done done) override {
    const std::string stream = type == kSelfTest ? test : collection(1, 2);
    if (asked == Asked::kYes) done(boards.take(boards.judge(runOf(now(), stream, type))).run);
    return asked;
  }
  Asked probe(const std::string &host, uint16_t, int type, Done done) override { return ask(host, type, done); }
  Health health() const override { return {}; }
};

struct Client {
  explicit Client(int port) : socket(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(socket, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  }
  ~Client() { close(socket); }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  bool say(const std::string &bytes) const {
    return send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  std::string hear() const {  // to the end
    std::string all;
    char bytes[4096];
    for (ssize_t size; (size = recv(socket, bytes, sizeof bytes, 0)) > 0;) all.append(bytes, static_cast<size_t>(size));
    return all;
  }
  bool isClosed() const {
    pollfd file = {socket, POLLIN, 0};
    char byte;
    return poll(&file, 1, 0) == 1 && recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
  }
  const int socket;
};

class HttpTest : public testing::Test {
 protected:
  HttpTest() : folder_(std::filesystem::temp_directory_path() / ("kep-http-" + std::to_string(getpid()))) {
    std::filesystem::remove_all(folder_);  // of an earlier process that did not get to it
    std::filesystem::create_directory(folder_);
    std::ofstream(folder_ / "names.toml") << kNames;
    config_.store = folder_ / "fleet.db";
    config_.http.port = 0;
    for (const char *name : {"pump <1>", "other"}) {
      config_.boards.push_back({name, "127.0.0.1", 9, {{"site", "north"}}, folder_ / "names.toml"});
    }
    names_.load(config_);
    boards_.configure(config_);
    store_ = openStore(config_.store);
  }
  ~HttpTest() override {
    server_.reset();
    store_.reset();
    std::filesystem::remove_all(folder_);
  }

  void serve() {
    Exports exports;
    exports.metrics = [](const Pieces &take) {
      for (int i = 0; i < 200 && take(std::string(100'000, 'm')); ++i) {
      }
    };
    exports.probe = [](const BoardState &board, const auto &run, const Pieces &take) {
      take(board.config.host + " " + std::string(nameOf(run.outcome)));
    };
    server_ = std::make_unique<HttpServer>(config_, boards_, names_, control_, exports);
    server_->start();
  }

  // The answer to a request with these further headers, a line each.
  std::string ask(const std::string &request, const std::string &headers = "", const std::string &host = "localhost") {
    const Client client(server_->port());
    client.say(request + " HTTP/1.1\r\n" + (host.empty() ? "" : "Host: " + host + "\r\n") + headers + "\r\n");
    return client.hear();
  }

  static int statusOf(const std::string &answer) { return answer.empty() ? 0 : std::atoi(answer.c_str() + 9); }
  static std::string bodyOf(const std::string &answer) { return answer.substr(answer.find("\r\n\r\n") + 4); }
  Json get(const std::string &path) { return Json::parse(bodyOf(ask("GET " + path))); }

  const std::filesystem::path folder_;
  Config config_;
  NamesBook names_;
  Boards boards_{names_};
  std::unique_ptr<Store> store_;
  PlayedControl control_{boards_};
  std::unique_ptr<HttpServer> server_;
};

struct Case {
  std::string request, headers, host;
  int open, token;  // the status without a token and with one
};

TEST_F(HttpTest, LetsInWhoMay) {
  const std::string act = "POST /kep/api/selftest?name=other", good = "Authorization: Bearer secret\r\n",
                    kep = "X-Kep: 1\r\n";
  const std::string longRange = "X: one line\nRange: bytes=" + std::string(7000, '1') + "-\r\n";
  const std::vector<Case> cases = {
      {"GET /kep/", "", "localhost:1234", 200, 303},
      {"GET /kep", "", "localhost", 303, 303},
      {"GET /", "", "localhost", 404, 404},
      {"GET /kep/login", "", "127.0.0.1", 200, 200},
      {"GET /kep/fleet.js", longRange, "fleet.example", 200, 200},
      {"GET /kep/icon.svg", "", "localhost", 200, 200},
      {"GET /kep/healthz", "", "localhost", 200, 200},
      {"GET /kep/healthz", "", "evil.example", 421, 421},
      {"GET /kep/healthz", "", "", 421, 421},
      {"GET /kep/healthz", "Host: localhost\r\n", "localhost", 421, 421},
      {"GET /kep/api/fleet", "", "localhost", 200, 401},
      {"GET /kep/api/fleet", good, "localhost", 200, 200},
      {"GET /kep/api/fleet", "Cookie: a=b; kep_fleet_0=736563726574\r\n", "localhost", 200, 200},
      {"GET /kep/api/fleet", "Cookie: kep_fleet_0=736563726575\r\n", "localhost", 200, 401},
      {"GET /kep/api/board?name=none", good, "localhost", 404, 404},
      {"GET /kep/api/plot?name=other&span=year", good, "localhost", 400, 400},
      {"GET /kep/raw?id=1x", good, "localhost", 400, 400},
      {"GET /kep/metrics", "", "localhost", 200, 401},
      {"GET /kep/probe?target=other&type=1", good, "localhost", 200, 200},
      {"GET /kep/probe?target=127.0.0.1:9", good, "localhost", 404, 404},
      {"GET /kep/probe?target=other", good + "Sec-Fetch-Site: cross-site\r\n", "localhost", 403, 403},
      {"GET /kep/api/selftest?name=other", good + kep, "localhost", 404, 404},
      {act, "", "localhost", 403, 401},
      {act, kep, "localhost", 200, 401},
      {act, good, "localhost", 403, 403},
      {act, good + kep, "localhost", 200, 200},
      {act, good + kep + "Origin: http://localhost:99\r\n", "localhost", 200, 200},
      {act, good + kep + "Origin: http://evil.example\r\n", "localhost", 403, 403},
      {act, good + kep + "Origin: null\r\n", "localhost", 403, 403},
      {act, good + kep + "Sec-Fetch-Site: same-site\r\n", "localhost", 403, 403},
      {act, good + kep + "Content-Encoding: br\r\n", "localhost", 415, 415},
      {act, good + kep + "Content-Type: multipart/form-data; boundary=x\r\n", "localhost", 415, 415},
  };
  config_.http.prefix = "/kep";
  config_.http.hosts = {"fleet.example"};
  for (const bool hasToken : {false, true}) {
    config_.http.token = hasToken ? "secret" : "";
    serve();
    for (const Case &one : cases) {
      const std::string answer = ask(one.request, one.headers, one.host);
      EXPECT_EQ(statusOf(answer), hasToken ? one.token : one.open) << one.request << '\n' << one.headers << answer;
      EXPECT_NE(answer.find("default-src 'none'; script-src 'self'"), std::string::npos) << answer;
    }
  }

  const std::string form = "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 12\r\n\r\ntoken=";
  EXPECT_NE(ask("POST /kep/login", form + "wrong!").find("Location: login#wrong"), std::string::npos);
  const std::string entered = ask("POST /kep/login", form + "secret");
  EXPECT_NE(entered.find("Set-Cookie: kep_fleet_0=736563726574; Path=/kep/;"), std::string::npos) << entered;
  EXPECT_NE(entered.find("HttpOnly; SameSite=Strict"), std::string::npos);
  int refused = 0;
  for (int i = 0; i < 60; ++i) refused += statusOf(ask("GET /kep/sd", "Authorization: Bearer x\r\n")) == 404 ? 0 : 1;
  EXPECT_EQ(refused, 0) << "a route that is not there compares nothing";
  for (int i = 0; i < 60; ++i)
    refused += statusOf(ask("GET /kep/metrics", "Authorization: Bearer x\r\n")) == 429 ? 1 : 0;
  EXPECT_GT(refused, 20);
  EXPECT_EQ(statusOf(ask("GET /kep/metrics", good)), 200);

  config_.http = {};
  const int six = socket(AF_INET6, SOCK_STREAM, 0);
  close(six);
  config_.http.address = six < 0 ? "0.0.0.0" : "::";  // the one for both
  config_.http.port = 0;
  serve();
  EXPECT_EQ(statusOf(ask("GET /api/fleet", "", "127.0.0.1")), 200);
  EXPECT_EQ(statusOf(ask("POST /api/collect?name=other", kep, "127.0.0.1")), 403) << "others than this machine's users";
  EXPECT_EQ(statusOf(ask("GET /api/fleet", "", "[::]:9180")), 200);
  EXPECT_EQ(statusOf(ask("GET /api/fleet", "", "[::1]:9180")), 421);
}

TEST_F(HttpTest, TellsWhatChanged) {
  serve();
  const Json all = get("/api/fleet");
  EXPECT_TRUE(all["all"]);
  EXPECT_EQ(all["counts"]["unknown"], 2);
  const std::string old = text(4, "2026/01/01 09:00:00") + text(4, "old"),
                    log = old + text(4, "2026/01/01 10:00:00") + text(4, "<b>\xff\x1b");
  const int64_t start = now() - 30'000;
  for (const auto &[age, stream] : {std::pair(0, collection(1000, 215, integer(1, 3, 1) + integer(1, 7, 5) + old)),
                                    std::pair(15'000, collection(2000, 215, integer(1, 3, 0) + log))}) {
    const Boards::Taken taken = boards_.take(boards_.judge(runOf(start + age, stream)));
    store_->write({taken.run}, taken.events);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(600));  // rows are made no more often
  const Json fleet = get("/api/fleet?version=" + all["version"].get<std::string>());
  EXPECT_FALSE(fleet["all"]);
  ASSERT_EQ(fleet["boards"].size(), 1u);
  EXPECT_EQ(fleet["boards"][0]["state"], "well");
  EXPECT_EQ(get("/api/fleet?version=" + fleet["version"].get<std::string>())["boards"].size(), 0u);

  const Json board = get("/api/board?name=pump%20%3C1%3E");
  const Json &run = board["runs"][0], &section = run["items"][0]["sections"][0];
  EXPECT_EQ(section["name"], "eth0");
  EXPECT_EQ(section["values"][0]["text"], "2 000");
  EXPECT_EQ(section["values"][0]["was"], "1 000");
  EXPECT_EQ(section["values"][0]["unit"], "B");
  EXPECT_EQ(section["values"][1]["text"], "21.5");
  EXPECT_FALSE(section["values"][1].contains("was"));
  EXPECT_EQ(section["values"][2]["text"], "down");
  EXPECT_EQ(section["logs"][0]["lines"], Json::parse(R"([{"text":"old","time":"2026-01-01T09:00:00"},
                               {"text":"<b>\\xff\\x1b","time":"2026-01-01T10:00:00","isNew":true}])"));
  EXPECT_EQ(run["gone"][0]["key"], 7);
  EXPECT_EQ(get("/api/board?name=pump%20%3C1%3E&version=" + board["version"].get<std::string>()), Json::object());

  const Json runs = get("/api/runs?name=pump%20%3C1%3E&limit=1");
  ASSERT_EQ(runs["runs"].size(), 1u);
  const std::string raw = ask("GET /raw?id=" + std::to_string(runs["runs"][0]["id"].get<int64_t>()));
  EXPECT_EQ(bodyOf(raw), collection(2000, 215, integer(1, 3, 0) + log));
  EXPECT_NE(raw.find("filename=\"pump__1_-"), std::string::npos) << raw;

  const Json tested = Json::parse(bodyOf(ask("POST /api/selftest?name=other", "X-Kep: 1\r\n")));
  EXPECT_EQ(tested["outcome"], "test failed");
  EXPECT_EQ(tested["failed"], 2);
  EXPECT_EQ(tested["items"][0]["verdict"], "FAIL");
  EXPECT_EQ(tested["items"][0]["sections"][0]["values"][0]["text"], "4.310");
  EXPECT_EQ(tested["items"][0]["sections"][1]["values"][0]["text"], "missing");

  std::string names;  // far too many
  for (int32_t i = 0; i < 1600; ++i) {
    std::string message;
    for (int32_t k = 0; k < 25; ++k) {
      message += board::head(0x83, 65535, 0, 0) + board::counted(std::to_string(i * 25 + k)) + integer(k, i, k);
    }
    names += board::message(2, i + 1, message);
  }
  control_.test = board::message(0, 77, std::string("\x0b\x01\0\0", 4)) + names + board::message(2, 1601, "");
  const Json most = Json::parse(bodyOf(ask("POST /api/selftest?name=other", "X-Kep: 1\r\n")));
  EXPECT_EQ(most["items"].size(), 4000u) << most["reason"];
  EXPECT_GT(most["leftOut"], 70'000);

  for (const auto &[asked, status] :
       {std::pair(Asked::kUnknown, 404), {Asked::kBusy, 409}, {Asked::kNotHeld, 409}, {Asked::kEnding, 503}}) {
    control_.asked = asked;
    EXPECT_EQ(statusOf(ask("POST /api/collect?name=other", "X-Kep: 1\r\n")), status);
  }
}

TEST_F(HttpTest, PlotsWithGaps) {
  serve();
  // Every 10 s: a counter that begins anew, a board that is away, a server that was, and one that goes on.
  const int64_t start = now() - 600'000;
  const std::vector<std::pair<int, int>> counts = {{0, 100}, {10, 200}, {20, 400}, {30, 50},  {40, 60},
                                                   {50, -1}, {60, 80},  {70, 90},  {170, 95}, {180, 105}};
  for (const auto &[second, count] : counts) {
    const auto run = runOf(start + second * 1000, count < 0 ? "" : collection(count, count));
    store_->write({boards_.take(boards_.judge(run)).run}, {});
  }
  const std::string path = "/api/plot?name=pump%20%3C1%3E&span=hour&item=1&section=1&key=";
  const Json counter = get(path + "1");
  EXPECT_EQ(counter["numbers"], Json::parse("[null,10.0,20.0,null,1.0,null,null,1.0,null,null,1.0]"));
  EXPECT_TRUE(counter["rate"]);
  EXPECT_EQ(counter["times"][8].get<double>() - counter["times"][0].get<double>(), 120) << "amid where nothing came";
  EXPECT_EQ(get(path + "1&raw=1")["numbers"][2], 400.0);
  const Json gauge = get(path + "2");
  EXPECT_EQ(gauge["numbers"], Json::parse("[10.0,20.0,40.0,5.0,6.0,null,8.0,9.0,null,9.5,10.5]"));
  EXPECT_EQ(gauge["unit"], "°C");
  EXPECT_TRUE(get(path + "99")["numbers"][0].is_null());
  store_->write({boards_.take(boards_.judge(runOf(now(), collection(5, 5), 1))).run}, {});
  EXPECT_TRUE(get(path + "1&type=1")["numbers"][0].is_null()) << "one count tells no growth";
}

// Those that trickle, say nothing or do not read hold up nobody, are bounded in number and time, and not the end
// either.
TEST_F(HttpTest, IsNotHeldUp) {
  serve();
  const std::string scrape = "GET /metrics HTTP/1.1\r\nHost: localhost\r\n\r\n";
  std::vector<std::unique_ptr<Client>> deaf, clients;
  for (int i = 0; i < 5; ++i) {
    deaf.push_back(std::make_unique<Client>(server_->port()));
    deaf.back()->say(scrape);
  }
  for (int i = 0; i < 700; ++i) {
    clients.push_back(std::make_unique<Client>(server_->port()));
    clients.back()->say(i % 2 == 0 ? "GET / HTTP/1.1\r\nHost: local" : "");
    if (i % 100 == 50) {
      EXPECT_EQ(statusOf(ask("GET /api/fleet")), 200);
    }
  }
  EXPECT_EQ(statusOf(ask("GET /api/fleet")), 200);
  int open = 0;
  for (const auto &client : clients) open += client->isClosed() ? 0 : 1;
  EXPECT_LE(open, 256);
  const auto start = std::chrono::steady_clock::now();
  while (clients.back()->say("x") && !clients.back()->isClosed()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  }
  clients.clear();
  const std::string packed = ask("GET /metrics", "Accept-Encoding: br, gzip\r\n");
  EXPECT_NE(packed.find("Content-Encoding: gzip"), std::string::npos);
  EXPECT_LT(packed.size(), 100'000u);
  EXPECT_GT(packed.size(), 10'000u);
  EXPECT_GT(ask("GET /metrics").size(), 20'000'000u) << "those that do not read have made room";
  EXPECT_EQ(statusOf(ask("GET /" + std::string(40'000, 'x'))), 414);
  const Client idle(server_->port()), last(server_->port());
  idle.say("POST /api/collect HTTP/1.1\r\nContent-Length: 99\r\n\r\n");
  last.say(scrape);
  EXPECT_TRUE(server_->stop());
}

}  // namespace

}  // namespace kepfleet
