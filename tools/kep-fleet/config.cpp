// config.cpp: from TOML to what the server is to do. The reader of tables refuses what it does not know; here is what
// each attribute means, and what contradicts what.

#include "kep-fleet/config.hpp"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <utility>

#include "common/command_line.hpp"
#include "server/text.hpp"
#include "server/toml_table.hpp"

namespace kepfleet {

namespace {

using namespace kepserver;
using std::chrono::milliseconds;

constexpr size_t kMaxMebibytes = 64;  // a hundred thousand boards with their labels
constexpr int64_t kMostBytes = int64_t{1} << 40;
constexpr milliseconds kDefaultPeriod{15'000};
constexpr milliseconds kDefaultKeep{7 * 86'400'000LL};
constexpr milliseconds kLongest{3653LL * 86'400'000LL};
constexpr int kEvents = -1;  // in Config::keep
constexpr int kTypeCount = 4;

struct Unit {
  std::string_view name;
  int64_t size;
};
constexpr std::array<Unit, 5> kTimes = {{{"ms", 1}, {"s", 1000}, {"m", 60'000}, {"h", 3'600'000}, {"d", 86'400'000}}};
constexpr std::array<Unit, 4> kSizes = {{{"KiB", 1 << 10}, {"MiB", 1 << 20}, {"GiB", 1 << 30}, {"B", 1}}};

// What a text such as "15s" comes to; empty when it is none or too much.
template <size_t kCount>
std::optional<int64_t> measure(std::string_view text, const std::array<Unit, kCount> &units, int64_t largest) {
  const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  const std::optional<int64_t> number = wholeNumberIn(text.substr(0, digits));
  for (const Unit &unit : units) {
    if (number && text.substr(digits) == unit.name && *number <= largest / unit.size) return *number * unit.size;
  }
  return std::nullopt;
}

// ---- single attributes; what is not there leaves its default

void readTime(TomlTable &table, std::string_view name, milliseconds &time, milliseconds shortest = milliseconds(1)) {
  const std::optional<std::string> text = table.text(name);
  if (!text) return;
  const std::optional<int64_t> read = measure(*text, kTimes, kLongest.count());
  if (!read) table.fail(name, inQuotes(*text) + "; expected a number and ms, s, m, h or d, such as \"15s\"");
  if (*read < shortest.count()) table.fail(name, "expected at least " + std::to_string(shortest.count()) + "ms");
  time = milliseconds(*read);
}

void readSize(TomlTable &table, std::string_view name, size_t &size, size_t smallest, size_t largest = kMostBytes) {
  const std::optional<std::string> text = table.text(name);
  if (!text) return;
  const std::optional<int64_t> read = measure(*text, kSizes, kMostBytes);
  if (!read) table.fail(name, inQuotes(*text) + "; expected a number and B, KiB, MiB or GiB, such as \"16MiB\"");
  size = static_cast<size_t>(*read);
  if (size < smallest) table.fail(name, "expected at least " + std::to_string(smallest) + "B");
  if (size > largest) table.fail(name, "expected at most " + std::to_string(largest >> 20) + "MiB");
}

// Reads "HOST:PORT"; a port that is not there stays as it is. Returns what is wrong with it, or nothing.
std::string splitPlace(const std::string &text, std::string &host, uint16_t &port, int64_t smallest) {
  const size_t colon = text.rfind(':');
  host = text.substr(0, colon);
  if (colon == std::string::npos) return "";
  const std::optional<int64_t> number = wholeNumberIn(std::string_view(text).substr(colon + 1));
  const bool isPort = number && *number >= smallest && *number <= 65535;
  if (!isPort) return "expected a port from " + std::to_string(smallest) + " to 65535 behind the colon";
  port = static_cast<uint16_t>(*number);
  return "";
}

// Where `mayBeSix`, an address of IPv6 stands in brackets, which are taken off.
void readLocalPlace(TomlTable &table, std::string_view name, std::string &address, uint16_t &port,
                    bool mayBeSix = false) {
  const std::optional<std::string> text = table.text(name);
  if (!text) return;
  std::string wrong = splitPlace(*text, address, port, 0);  // 0: any that is free
  in6_addr six{};
  const bool isInBrackets = address.size() > 2 && address.front() == '[' && address.back() == ']';
  if (mayBeSix && isInBrackets && inet_pton(AF_INET6, address.substr(1, address.size() - 2).c_str(), &six) == 1) {
    address = address.substr(1, address.size() - 2);
  } else if (wrong.empty()) {
    wrong = kepcommand::checkAddress(address);
  }
  if (!wrong.empty()) table.fail(name, wrong + "; expected an IPv4 address and a port, such as \"127.0.0.1:9180\"");
}

std::string pathOf(const TomlTable &table, const std::string &path) {
  return (std::filesystem::path(table.file().path).parent_path() / path).lexically_normal().string();
}

std::string readPath(TomlTable &table, std::string_view name) {
  const std::optional<std::string> path = table.text(name);
  return path ? pathOf(table, *path) : "";
}

// Labels become those of metrics, whose names they may not take.
std::string checkLabel(const std::string &name) {
  static const std::set<std::string> kTaken = {"board", "item", "section", "key", "state", "type"};
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
  const auto isGood = [&](char c) { return isLetter(c) || (c >= '0' && c <= '9'); };
  const bool good = !name.empty() && isLetter(name[0]) && std::all_of(name.begin(), name.end(), isGood);
  if (!good || name.substr(0, 2) == "__") return inQuotes(name) + "; expected letters, digits and _";
  return kTaken.count(name) != 0 ? inQuotes(name) + " is taken; expected another label" : "";
}

Labels readLabels(TomlTable &table) {
  Labels labels;
  const std::optional<TomlTable> entries = table.table("labels");
  if (!entries) return labels;
  entries->eachNamed([&](const std::string &name, const toml::node &node) {
    if (const std::string wrong = checkLabel(name); !wrong.empty()) table.file().fail(node, "labels: " + wrong);
    if (!node.is_string()) table.file().fail(node, name + ": expected a text, not " + std::string(typeOf(node)));
    labels[name] = checkedText(table.file(), node, **node.as_string());
  });
  return labels;
}

// Calls `use` for each table of a list of tables.
void eachTable(TomlTable &root, std::string_view name, const std::function<void(TomlTable &)> &use) {
  const toml::node *const node = root.take(name);
  if (!node) return;
  const toml::array *const list = node->as_array();
  if (!list) root.fail(name, "expected [[" + std::string(name) + "]], not " + std::string(typeOf(*node)));
  for (const toml::node &entry : *list) {
    TomlTable table(root.file(), entry);
    use(table);
    table.finish();
  }
}

// ---- tables

void readBoards(TomlTable &root, Config &config) {
  std::set<std::string> names;
  std::set<std::pair<std::string, uint16_t>> places;
  eachTable(root, "board", [&](TomlTable &table) {
    BoardConfig board;
    const std::optional<std::string> place = table.text("host");
    if (!place) table.fail("no host; expected host = \"192.0.2.7\"");
    std::string wrong = splitPlace(*place, board.host, board.port, 1);
    if (wrong.empty()) wrong = kepcommand::checkHost(board.host);
    if (!wrong.empty()) table.fail("host", wrong);
    if (const auto port = table.whole("port", 1, 65535)) {
      if (board.host != *place) table.fail("port", "a port here and in host; expected one of them");
      board.port = static_cast<uint16_t>(*port);
    }
    board.name = table.text("name").value_or(*place);
    board.namesFile = readPath(table, "names");
    board.labels = readLabels(table);
    if (!names.insert(board.name).second) table.fail("name", "a second board " + inQuotes(board.name));
    if (!places.emplace(board.host, board.port).second) table.fail("host", "a second board at " + inQuotes(*place));
    config.boards.push_back(std::move(board));
  });
  if (config.boards.empty()) root.file().fail(1, "no board; expected [[board]] with host = \"192.0.2.7\"");
}

// A board shall not be asked the same by two schedules.
void checkPoll(const TomlTable &table, const Config &config, const Poll &poll) {
  bool chooses = false;
  for (const BoardConfig &board : config.boards) {
    if (!hasLabels(board.labels, poll.labels)) continue;
    chooses = true;
    for (const Poll &other : config.polls) {
      if (other.type != poll.type || !hasLabels(board.labels, other.labels)) continue;
      table.fail("a second schedule for the same requests to board " + inQuotes(board.name));
    }
  }
  if (!chooses) table.fail("labels", "no board has them; expected such as some have");
}

void readPolls(TomlTable &root, Config &config) {
  eachTable(root, "poll", [&](TomlTable &table) {
    Poll poll;
    const std::optional<int64_t> type = table.whole("type", 0, 2);
    const bool isTest = table.flag("selftest").value_or(false);
    if (type && isTest) table.fail("selftest", "a type and a self-test; expected one of them");
    poll.type = isTest ? kTypeCount - 1 : static_cast<int>(type.value_or(0));
    readTime(table, "every", poll.every, milliseconds(100));
    poll.labels = readLabels(table);
    checkPoll(table, config, poll);
    config.polls.push_back(std::move(poll));
  });
  if (config.polls.empty()) config.polls.push_back({0, kDefaultPeriod, {}});
}

void readKeep(TomlTable &root, Config &config) {
  milliseconds all = kDefaultKeep;
  const toml::node *const node = root.take("keep");
  if (node && node->is_string()) readTime(root, "keep", all);
  for (int type = kEvents; type < kTypeCount; ++type) config.keep[type] = all;
  if (!node || node->is_string()) return;
  TomlTable table(root.file(), *node);
  const std::array<std::string_view, 5> names = {"events", "0", "1", "2", "selftest"};
  for (int type = kEvents; type < kTypeCount; ++type) {
    readTime(table, names[static_cast<size_t>(type - kEvents)], config.keep[type], milliseconds(1000));
  }
  table.finish();
}

void readLimits(TomlTable &root, Limits &limits) {
  std::optional<TomlTable> table = root.table("limits");
  if (!table) return;
  readTime(*table, "connect", limits.connect);
  readTime(*table, "silence", limits.silence);
  readTime(*table, "run", limits.run);
  readSize(*table, "run_size", limits.runBytes, 4096, size_t{64} << 20);  // nothing reads more
  readTime(*table, "pause", limits.longestPause);
  readSize(*table, "waiting", limits.waitingBytes, size_t{1} << 20);
  if (limits.run < limits.connect) table->fail("run", "expected at least as long as connect");
  table->finish();
}

std::string tokenIn(TomlTable &table, const std::string &path) {
  try {
    std::string token = kepcommand::contentOf(path, 1);
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    const bool isGood = !token.empty() && isPlain(token) && token.find_first_of(" ;,\"") == std::string::npos;
    if (!isGood) table.fail("token_file", path + " holds no token; expected visible characters but ; , and \"");
    return token;
  } catch (const kepcommand::Failure &failure) {
    table.fail("token_file", failure.text);
  }
}

void readHttp(TomlTable &root, HttpConfig &http) {
  std::optional<TomlTable> table = root.table("http");
  if (!table) return;
  readLocalPlace(*table, "address", http.address, http.port, true);
  http.prefix = table->text("prefix").value_or("");
  const bool isPath = http.prefix.empty() || (http.prefix[0] == '/' && http.prefix.back() != '/');
  if (!isPath) table->fail("prefix", "expected as \"/kep\", with a slash in front and none behind");
  if (const toml::node *const node = table->take("hosts")) {
    if (!node->is_array()) table->fail("hosts", "expected a list of names, not " + std::string(typeOf(*node)));
    for (const toml::node &entry : *node->as_array()) {
      if (!entry.is_string()) root.file().fail(entry, "hosts: expected names");
      http.hosts.push_back(checkedText(root.file(), entry, **entry.as_string()));
    }
  }
  const std::string token = readPath(*table, "token_file");
  if (!token.empty()) http.token = tokenIn(*table, token);
  http.probeAny = table->flag("probe_any").value_or(false);
  table->finish();
}

void readAlarm(TomlTable &root, AlarmConfig &alarm) {
  alarm.command = root.text("on_event").value_or("");
  for (const std::string_view name : {"on_event_limit", "on_event_at_once"}) {
    if (root.has(name) && alarm.command.empty()) root.fail(name, "expected with on_event only");
  }
  readTime(root, "on_event_limit", alarm.limit);
  if (const auto most = root.whole("on_event_at_once", 1, 1000)) alarm.atOnce = static_cast<size_t>(*most);
}

void readLabelFrom(TomlTable &root, Config &config) {
  const std::optional<TomlTable> entries = root.table("label_from");
  if (!entries) return;
  entries->eachNamed([&](const std::string &name, const toml::node &node) {
    if (const std::string wrong = checkLabel(name); !wrong.empty()) root.file().fail(node, "label_from: " + wrong);
    TomlTable table(root.file(), node);
    LabelFrom from;
    from.label = name;
    const std::optional<std::string> item = table.text("item");
    const std::optional<int64_t> key = table.whole("key", INT32_MIN, INT32_MAX);
    if (!item || !key) table.fail(name + ": expected item and key, such as { item = \"system\", key = 4 }");
    from.item = *item;
    from.key = static_cast<int32_t>(*key);
    from.section = static_cast<int32_t>(table.whole("section", INT32_MIN, INT32_MAX).value_or(0));
    table.finish();
    config.labelFrom.push_back(std::move(from));
  });
}

void readLog(TomlTable &root, LogConfig &log) {
  std::optional<TomlTable> table = root.table("log");
  if (!table) return;
  if (const auto level = table->text("level")) {
    const std::array<std::string_view, 5> levels = {"trace", "debug", "info", "warning", "error"};
    if (std::find(levels.begin(), levels.end(), *level) == levels.end()) {
      table->fail("level", inQuotes(*level) + "; expected trace, debug, info, warning or error");
    }
    log.level = *level;
  }
  const std::string format = table->text("format").value_or("text");
  if (format != "text" && format != "json") table->fail("format", inQuotes(format) + "; expected text or json");
  log.json = format == "json";
  table->finish();
}

bool isDatabase(const std::string &store) {
  return store.rfind("postgresql://", 0) == 0 || store.rfind("postgres://", 0) == 0;
}

void readStore(TomlTable &root, Config &config) {
  if (const auto store = root.text("store")) config.store = isDatabase(*store) ? *store : pathOf(root, *store);
  config.instance = root.text("instance").value_or("");
  readTime(root, "lease", config.lease, milliseconds(1000));
  for (const std::string_view name : {"instance", "lease"}) {
    if (root.has(name) && !isDatabase(config.store)) root.fail(name, "expected with a store of postgresql:// only");
  }
}

std::string defaultStore() {
  if (const char *const state = std::getenv("XDG_STATE_HOME"); state && *state == '/') {
    return std::string(state) + "/kep/fleet.db";
  }
  const char *const home = std::getenv("HOME");
  if (!home || *home != '/') throw ConfigError{"", 0, "no HOME to keep runs in; expected a configuration with store"};
  return std::string(home).append("/.local/state/kep/fleet.db");
}

void read(TomlTable &root, Config &config) {
  readLocalPlace(root, "listen", config.listenAddress, config.listenPort);
  readStore(root, config);
  config.namesDir = readPath(root, "names_dir");
  readBoards(root, config);
  readPolls(root, config);
  readKeep(root, config);
  readLimits(root, config.limits);
  readHttp(root, config.http);
  readAlarm(root, config.alarm);
  readLabelFrom(root, config);
  readLog(root, config.log);
}

}  // namespace

ConfigError::ConfigError(const std::string &file, size_t line, const std::string &reason)
    : std::runtime_error(file + (line == 0 ? "" : ":" + std::to_string(line)) + (file.empty() ? "" : ": ") + reason) {}

Config readConfig(const std::string &path) {
  Config config;
  config.path = path;
  try {
    const std::string text = kepcommand::contentOf(path, kMaxMebibytes);
    readToml(text, path, kMaxMebibytes, [&config](TomlTable &root) { read(root, config); });
  } catch (const NamesError &error) {
    throw ConfigError{error.file, error.line, error.reason};
  } catch (const kepcommand::Failure &failure) {
    throw ConfigError{"", 0, failure.text};
  }
  if (config.store.empty()) config.store = defaultStore();
  return config;
}

Config defaultConfig(const std::vector<std::string> &hosts) {
  Config config;
  for (const std::string &place : hosts) {
    BoardConfig board;
    board.name = place;
    std::string wrong = splitPlace(place, board.host, board.port, 1);
    if (wrong.empty()) wrong = kepcommand::checkHost(board.host);
    if (!wrong.empty()) throw ConfigError{"", 0, std::string(place).append(": ").append(wrong)};
    const bool isKnown = std::any_of(config.boards.begin(), config.boards.end(), [&board](const BoardConfig &other) {
      return other.host == board.host && other.port == board.port;
    });
    if (isKnown) throw ConfigError{"", 0, place + ": named twice"};
    config.boards.push_back(std::move(board));
  }
  config.polls.push_back({0, kDefaultPeriod, {}});
  for (int type = kEvents; type < kTypeCount; ++type) config.keep[type] = kDefaultKeep;
  config.store = defaultStore();
  return config;
}

bool hasLabels(const Labels &labels, const Labels &wanted) {
  return std::includes(labels.begin(), labels.end(), wanted.begin(), wanted.end());
}

}  // namespace kepfleet
