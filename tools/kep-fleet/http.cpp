// http.cpp: what is asked under which path, and who may.

#include "kep-fleet/http.hpp"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "kep-fleet/access.hpp"
#include "kep-fleet/listener.hpp"
#include "kep-fleet/page_data.hpp"
#include "kep-fleet/page_files.hpp"

namespace kepfleet {

namespace {

using httplib::Request;
using httplib::Response;

constexpr size_t kMostStores = 4;  // connections, and so answers that are read from the store at once
constexpr std::chrono::seconds kStoreWait{10};
constexpr size_t kMostAsks = 48;    // at once; the other workers serve the page
constexpr size_t kMostLarge = 4;    // answers of the page at once: each may have megabytes
constexpr size_t kMostScrapes = 4;  // likewise, of metrics
constexpr std::chrono::milliseconds kSlice{100};
constexpr std::chrono::seconds kPatience{5};  // with a board that is being asked
constexpr size_t kMostRows = 500;             // of an answer
constexpr size_t kFewRows = 1000;             // of the fleet, which take no place among large answers

constexpr const char *kJson = "application/json";

// Nothing but this server's own files is loaded or run, whatever text of a board is shown, and nobody frames them.
const httplib::Headers kHeaders = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; form-action 'self'; "
     "base-uri 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
};

// An answer that is not what was asked for.
struct Problem : std::runtime_error {
  Problem(int code, const std::string &reason) : std::runtime_error(reason), status(code) {}
  const int status;
};

void require(const std::optional<Refusal> &refusal) {
  if (refusal) throw Problem(refusal->status, refusal->reason);
}

// ---- parameters

template <class Number>
Number number(const Request &request, const char *name, Number least, Number most, std::optional<Number> missing = {}) {
  if (!request.has_param(name) && missing) return *missing;
  const std::string text = request.get_param_value(name);
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < least || value > most) {
    throw Problem(
        400, std::string(name) + ": a number is needed, from " + std::to_string(least) + " to " + std::to_string(most));
  }
  return value;
}

int typeOf(const Request &request) { return number<int>(request, "type", 0, kTypes - 1, 0); }

int64_t untilOf(const Request &request) { return number<int64_t>(request, "to", INT64_MIN, INT64_MAX, INT64_MAX); }

size_t limitOf(const Request &request) { return number<size_t>(request, "limit", 1, kMostRows, 100); }

int32_t integer(const Request &request, const char *name) {
  return number<int32_t>(request, name, INT32_MIN, INT32_MAX, 0);
}

BoardConfig strangerAt(const std::string &place) {
  try {
    return boardAt(place);
  } catch (const ConfigError &error) {
    throw Problem(400, error.what());
  }
}

std::chrono::hours spanOf(const Request &request) {
  const std::string span = request.get_param_value("span");
  if (span == "hour") return std::chrono::hours(1);
  if (span == "day") return std::chrono::hours(24);
  if (span == "week") return std::chrono::hours(24 * 7);
  throw Problem(400, "span: hour, day or week");
}

int64_t nowMilliseconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

// An answer may be that of a run, however long such a one may take.
ListenerLimits listenerLimits(const Limits &runs) {
  ListenerLimits limits;
  limits.answer = std::max(limits.answer, runs.run + 2 * kPatience);
  return limits;
}

// ---- what waits

// Connections to the store that are opened when they are needed, and are there for whoever comes next. One that failed
// is not used again.
class Stores {
 public:
  explicit Stores(std::string where) : where_(std::move(where)) {}

  template <class Use>
  auto with(const Use &use) {
    std::unique_ptr<Store> store = take();
    const Returned returned{*this};
    if (!store) store = openStoreToRead(where_);
    auto result = use(*store);
    const std::lock_guard lock(mutex_);
    idle_.push_back(std::move(store));
    return result;
  }

 private:
  struct Returned {
    Stores &stores;
    ~Returned() {
      const std::lock_guard lock(stores.mutex_);
      --stores.used_;
      stores.isFree_.notify_one();
    }
  };

  std::unique_ptr<Store> take() {
    std::unique_lock lock(mutex_);
    if (!isFree_.wait_for(lock, kStoreWait, [this] { return used_ < kMostStores; })) {
      throw Problem(503, "too much is asked of the store");
    }
    ++used_;
    if (idle_.empty()) return nullptr;
    std::unique_ptr<Store> store = std::move(idle_.back());
    idle_.pop_back();
    return store;
  }

  const std::string where_;
  std::mutex mutex_;
  std::condition_variable isFree_;
  size_t used_ = 0;
  std::vector<std::unique_ptr<Store>> idle_;
};

// A run that a worker waits for; it comes from another thread, maybe when nobody waits any more.
class Awaited {
 public:
  void take(const Run &run) {
    const std::lock_guard lock(mutex_);
    run_ = run;
    hasCome_.notify_all();
  }

  std::optional<Run> wait(std::chrono::steady_clock::time_point deadline, const Listener &listener) {
    std::unique_lock lock(mutex_);
    while (!run_ && !listener.isEnding() && std::chrono::steady_clock::now() < deadline) {
      hasCome_.wait_for(lock, kSlice);
    }
    return run_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable hasCome_;
  std::optional<Run> run_;
};

struct Counted {
  explicit Counted(std::atomic<size_t> &number) : count(number) { ++count; }
  ~Counted() { --count; }
  Counted(const Counted &) = delete;
  Counted &operator=(const Counted &) = delete;
  std::atomic<size_t> &count;
};

// ---- texts

std::string_view typeOfFile(std::string_view path) {
  const std::string_view ending = path.substr(path.rfind('.') + 1);
  if (ending == "html") return "text/html; charset=utf-8";
  if (ending == "css") return "text/css; charset=utf-8";
  if (ending == "js") return "text/javascript; charset=utf-8";
  return ending == "svg" ? "image/svg+xml" : "text/plain; charset=utf-8";
}

// The library takes paths as regular expressions.
std::string literally(const std::string &path) {
  std::string pattern;
  for (const char c : path) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

// For a file of that run's bytes: letters that every system takes.
std::string fileName(const Run &run) {
  std::string name = run.board + "-" + std::to_string(run.started) + "-type" + std::to_string(run.type) + ".raw";
  for (char &c : name) {
    const bool isPlain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '.';
    if (!isPlain && c != '-') c = '_';
  }
  return name;
}

}  // namespace

// ---- routes

struct HttpServer::Implementation {
  Implementation(const Config &config, const Boards &fleet, const NamesBook &book, Control &collector, Exports told)
      : http(config.http),
        limits(config.limits),
        boards(fleet),
        names(book),
        control(collector),
        exports(std::move(told)),
        access(http),
        stores(config.store),
        rows(fleet),
        listener(listenerLimits(config.limits)) {}

  using Answer = void (Implementation::*)(const Request &, Response &);
  enum class Need { kNothing, kSee, kAsk, kAct };

  void prepare();
  void routeFiles();
  void route();
  void get(const std::string &path, Need need, Answer answer);
  void post(const std::string &path, Need need, Answer answer);
  httplib::Server::Handler guarded(Need need, Answer answer);

  BoardState board(const Request &request) const;
  NamesPointer namesOf(const BoardState &state) const { return names.of(state.config, state.identity); }
  Run await(const std::function<Asked(Control::Done)> &ask);
  void ask(const Request &request, Response &response, int type);
  void takePlace(Places &places);
  static void stream(Response &response, std::function<void(const Pieces &)> write);

  static void serveFile(const PageFile &file, const Request &request, Response &response);
  void getPage(const Request &request, Response &response);
  void enter(const Request &request, Response &response);
  void getFleet(const Request &request, Response &response);
  void getBoard(const Request &request, Response &response);
  void getPlot(const Request &request, Response &response);
  void getRuns(const Request &request, Response &response);
  void getEvents(const Request &request, Response &response);
  void getRaw(const Request &request, Response &response);
  void selfTest(const Request &request, Response &response) { ask(request, response, kSelfTest); }
  void collect(const Request &request, Response &response) { ask(request, response, typeOf(request)); }
  void getHealth(const Request &request, Response &response);
  void getMetrics(const Request &request, Response &response);
  void getProbe(const Request &request, Response &response);
  void getDiscovery(const Request &request, Response &response);

  const HttpConfig http;
  const Limits limits;
  const Boards &boards;
  const NamesBook &names;
  Control &control;
  const Exports exports;
  Access access;
  Stores stores;
  FleetRows rows;
  std::atomic<size_t> asks{0};  // that are waited for
  Places large{kMostLarge}, scrapes{kMostScrapes};
  int port = 0;
  Listener listener;  // the last: its threads use all of the above
};

httplib::Server::Handler HttpServer::Implementation::guarded(Need need, Answer answer) {
  return [this, need, answer](const Request &request, Response &response) {
    response.set_header("Cache-Control", "no-store");
    if (need == Need::kSee) require(access.toSee(request));
    if (need == Need::kAsk) require(access.toAsk(request));
    if (need == Need::kAct) require(access.toAct(request));
    (this->*answer)(request, response);
  };
}

void HttpServer::Implementation::get(const std::string &path, Need need, Answer answer) {
  listener.Get(literally(http.prefix + path), guarded(need, answer));
}

void HttpServer::Implementation::post(const std::string &path, Need need, Answer answer) {
  listener.Post(literally(http.prefix + path), guarded(need, answer));
}

// What holds whatever is asked.
void HttpServer::Implementation::prepare() {
  listener.set_default_headers(kHeaders);
  listener.set_pre_routing_handler([this](const Request &request, Response &) {
    require(access.toKnow(request));
    if (request.has_header("Content-Encoding")) throw Problem(415, "a request's body comes as it is");
    // Of a body in parts the library reads each head with a regular expression, whose recursion could leave the stack.
    if (request.get_header_value("Content-Type").rfind("multipart/", 0) == 0) throw Problem(415, "a body has no parts");
    return httplib::Server::HandlerResponse::Unhandled;
  });
  listener.set_error_handler([](const Request &, Response &response) {
    if (response.body.empty() && response.status >= 400) response.set_content(problemJson("there is nothing"), kJson);
  });
  listener.set_exception_handler([](const Request &, Response &response, const std::exception_ptr &thrown) {
    try {
      std::rethrow_exception(thrown);
    } catch (const Problem &problem) {
      response.status = problem.status;
      response.set_content(problemJson(problem.what()), kJson);
    } catch (const std::exception &error) {  // most likely of the store
      response.status = 503;
      response.set_content(problemJson(error.what()), kJson);
    }
  });
}

void HttpServer::Implementation::routeFiles() {
  for (const PageFile &file : pageFiles()) {
    if (file.path == "index.html") continue;
    const std::string path = file.path == "login.html" ? "login" : std::string(file.path);
    listener.Get(literally(http.prefix + "/" + path),
                 [&file](const Request &request, Response &response) { serveFile(file, request, response); });
  }
  if (http.prefix.empty()) return;
  listener.Get(literally(http.prefix),
               [this](const Request &, Response &response) { response.set_redirect(http.prefix + "/", 303); });
}

void HttpServer::Implementation::route() {
  prepare();
  routeFiles();
  using I = Implementation;
  get("/", Need::kNothing, &I::getPage);
  post("/login", Need::kNothing, &I::enter);
  get("/api/fleet", Need::kSee, &I::getFleet);
  get("/api/board", Need::kSee, &I::getBoard);
  get("/api/plot", Need::kSee, &I::getPlot);
  get("/api/runs", Need::kSee, &I::getRuns);
  get("/api/events", Need::kSee, &I::getEvents);
  get("/raw", Need::kSee, &I::getRaw);
  post("/api/selftest", Need::kAct, &I::selfTest);
  post("/api/collect", Need::kAct, &I::collect);
  get("/healthz", Need::kNothing, &I::getHealth);
  if (exports.metrics) get("/metrics", Need::kSee, &I::getMetrics);
  if (exports.probe) get("/probe", Need::kAsk, &I::getProbe);
  if (exports.discovery) get("/sd", Need::kSee, &I::getDiscovery);
}

// ---- the page

void HttpServer::Implementation::serveFile(const PageFile &file, const Request &request, Response &response) {
  const std::string tag = "W/\"" + std::string(file.tag) + "\"";
  response.headers.erase("Cache-Control");  // in place of the route's own
  response.set_header("Cache-Control", "no-cache");
  response.set_header("ETag", tag);
  if (request.get_header_value("If-None-Match") == tag) {
    response.status = 304;
  } else {
    response.set_content(file.bytes.data(), file.bytes.size(), std::string(typeOfFile(file.path)));
  }
}

void HttpServer::Implementation::getPage(const Request &request, Response &response) {
  if (access.toSee(request)) return response.set_redirect("login", 303);
  for (const PageFile &file : pageFiles()) {
    if (file.path == "index.html") serveFile(file, request, response);
  }
}

void HttpServer::Implementation::enter(const Request &request, Response &response) {
  const auto refusal = access.toEnter(request, request.get_param_value("token"));
  if (refusal && refusal->status == 401) return response.set_redirect("login#wrong", 303);
  require(refusal);
  if (!http.token.empty()) response.set_header("Set-Cookie", access.cookie(request));
  response.set_redirect("./", 303);
}

// ---- its data

BoardState HttpServer::Implementation::board(const Request &request) const {
  std::optional<BoardState> found = boards.find(request.get_param_value("name"));
  if (!found) throw Problem(404, "no such board");
  return std::move(*found);
}

void HttpServer::Implementation::takePlace(Places &places) {
  Places::Taken place = places.take(listener.isEnding());
  if (!place) throw Problem(503, "too many large answers are asked for");
  Listener::hold(std::move(place));
}

void HttpServer::Implementation::getFleet(const Request &request, Response &response) {
  const std::string version = request.get_param_value("version");
  if (rows.newTo(version) > kFewRows) takePlace(large);
  const bool mayAct = !http.token.empty() || isLoopback(http.address);
  response.set_content(rows.since(version, control.health(), mayAct), kJson);
}

// The runs come from memory, and only those that they are compared with from the store; also what memory has no room
// for.
void HttpServer::Implementation::getBoard(const Request &request, Response &response) {
  const BoardState state = board(request);
  if (request.get_param_value("version") == boardVersion(state)) return response.set_content("{}", kJson);
  takePlace(large);
  const auto before = [this](const Run &run) {
    RunQuery query;
    query.board = run.board;
    query.to = run.started;
    query.type = run.type;
    query.wholeOnly = query.newestFirst = query.withStreams = true;
    query.limit = 1;
    return stores.with([&query](Store &store) {
      std::optional<Run> found;
      store.runs(query, [&found](StoredRun &&stored) {
        found = std::move(stored.run);
        return true;
      });
      return found;
    });
  };
  response.set_content(boardJson(state, *namesOf(state), before), kJson);
}

void HttpServer::Implementation::getPlot(const Request &request, Response &response) {
  const BoardState state = board(request);
  PlotQuery query;
  query.type = typeOf(request);
  query.item = integer(request, "item");
  query.section = integer(request, "section");
  query.key = integer(request, "key");
  query.field = number<size_t>(request, "field", 0, 10'000, 0);
  query.isRaw = request.has_param("raw");
  query.isEnding = [this] { return listener.isEnding().load(); };
  query.to = nowMilliseconds() + 1;
  query.from = query.to - std::chrono::milliseconds(spanOf(request)).count();
  const NamesPointer known = namesOf(state);
  takePlace(large);
  response.set_content(stores.with([&](Store &store) { return plotJson(store, state, *known, query); }), kJson);
}

void HttpServer::Implementation::getRuns(const Request &request, Response &response) {
  RunQuery query;
  query.board = board(request).config.name;
  query.to = untilOf(request);
  query.newestFirst = true;
  query.limit = limitOf(request);
  if (request.has_param("type")) query.type = typeOf(request);
  response.set_content(stores.with([&query](Store &store) { return runsJson(store, query); }), kJson);
}

void HttpServer::Implementation::getEvents(const Request &request, Response &response) {
  EventQuery query;
  query.board = request.get_param_value("name");
  query.to = untilOf(request);
  query.limit = limitOf(request);
  response.set_content(stores.with([&query](Store &store) { return eventsJson(store, query); }), kJson);
}

void HttpServer::Implementation::getRaw(const Request &request, Response &response) {
  const auto id = number<int64_t>(request, "id", 0, INT64_MAX);
  takePlace(large);
  const std::optional<StoredRun> stored = stores.with([id](Store &store) { return store.run(id); });
  if (!stored) throw Problem(404, "no such run");
  response.set_header("Content-Disposition", "attachment; filename=\"" + fileName(stored->run) + "\"");
  response.set_content(stored->run.stream, "application/octet-stream");
}

// ---- runs made now

Run HttpServer::Implementation::await(const std::function<Asked(Control::Done)> &ask) {
  const Counted counted(asks);
  if (asks > kMostAsks) throw Problem(503, "too many runs are waited for");
  const auto awaited = std::make_shared<Awaited>();
  const auto patience = std::chrono::steady_clock::now() + kPatience;
  Asked asked = Asked::kBusy;
  while (asked == Asked::kBusy && !listener.isEnding() && std::chrono::steady_clock::now() < patience) {
    asked = ask([awaited](const Run &run) { awaited->take(run); });
    if (asked == Asked::kBusy) std::this_thread::sleep_for(kSlice);  // with a run that is soon over
  }
  switch (asked) {
    case Asked::kUnknown: throw Problem(404, "no such board");
    case Asked::kBusy: throw Problem(409, "a run of this board is under way");
    case Asked::kNotHeld: throw Problem(409, "another instance asks this board");
    case Asked::kEnding: throw Problem(503, "the server ends");
    case Asked::kYes: break;
  }
  std::optional<Run> run =
      awaited->wait(std::chrono::steady_clock::now() + limits.run + std::chrono::seconds(1), listener);
  if (!run) throw Problem(504, "the run has not ended in time");
  return std::move(*run);
}

void HttpServer::Implementation::ask(const Request &request, Response &response, int type) {
  const BoardState state = board(request);
  const Run run = await([&](Control::Done done) { return control.ask(state.config.name, type, std::move(done)); });
  takePlace(large);
  response.set_content(askedJson(*namesOf(state), run), kJson);
}

// ---- what programs ask for

void HttpServer::Implementation::getHealth(const Request &request, Response &response) {
  const Health health = control.health();
  response.status = health.store.empty() && health.leases.empty() ? 200 : 503;
  const bool maySee = !access.toSee(request);
  response.set_content(healthJson(health, maySee), kJson);
}

// In pieces, as they are made. What stops in the middle breaks the answer off, so that nobody takes it for the whole.
void HttpServer::Implementation::stream(Response &response, std::function<void(const Pieces &)> write) {
  response.set_chunked_content_provider("text/plain; version=0.0.4; charset=utf-8",
                                        [write = std::move(write)](size_t, httplib::DataSink &sink) {
                                          bool isRead = true;
                                          write([&](std::string_view piece) {
                                            isRead = isRead && sink.write(piece.data(), piece.size());
                                            return isRead;
                                          });
                                          if (isRead) sink.done();
                                          return isRead;
                                        });
}

void HttpServer::Implementation::getMetrics(const Request &, Response &response) {
  takePlace(scrapes);
  stream(response, exports.metrics);
}

void HttpServer::Implementation::getProbe(const Request &request, Response &response) {
  const std::string target = request.get_param_value("target");
  const int type = typeOf(request);
  std::optional<BoardState> state = boards.find(target);
  if (!state && !http.probeAny) throw Problem(404, "no such board");
  const bool isKnown = state.has_value();
  if (!isKnown) state.emplace().config = strangerAt(target);
  const BoardConfig &config = state->config;
  Run run = await([&](Control::Done done) {
    return isKnown ? control.ask(target, type, std::move(done))
                   : control.probe(config.host, config.port, type, std::move(done));
  });
  takePlace(scrapes);  // the run is held until its numbers are read
  stream(response, [this, state = std::move(*state), run = std::move(run)](const Pieces &take) {
    exports.probe(state, run, take);
  });
}

void HttpServer::Implementation::getDiscovery(const Request &, Response &response) {
  response.set_content(exports.discovery(), kJson);
}

// ---- the public face

HttpServer::HttpServer(const Config &config, const Boards &boards, const NamesBook &names, Control &control,
                       Exports exports)
    : implementation_(std::make_unique<Implementation>(config, boards, names, control, std::move(exports))) {
  implementation_->route();
}

HttpServer::~HttpServer() = default;

void HttpServer::start() {
  try {
    implementation_->port = implementation_->listener.open(implementation_->http.address, implementation_->http.port);
  } catch (const std::runtime_error &error) {
    throw ConfigError{"", 0, error.what()};
  }
}

int HttpServer::port() const { return implementation_->port; }

bool HttpServer::stop() { return implementation_->listener.close(); }

}  // namespace kepfleet
