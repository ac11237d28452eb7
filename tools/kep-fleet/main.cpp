// main.cpp: the command line of kep-fleet.

#include <malloc.h>
#include <pthread.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/command_line.hpp"
#include "common/process.hpp"
#include "kep-fleet/config.hpp"
#include "kep-fleet/fleet.hpp"
#include "kep-fleet/http.hpp"
#include "kep-fleet/log.hpp"
#include "kep-fleet/metrics.hpp"
#include "kep-fleet/store.hpp"
#include "server/print.hpp"
#include "server/run_report.hpp"
#include "server/times.hpp"

namespace {

using namespace kepcommand;
using namespace kepfleet;

constexpr char kUsageText[] =
    "Usage: kep-fleet HOST...\n"
    "       kep-fleet --config FILE [--check]\n"
    "       kep-fleet backup FILE [--config FILE]\n"
    "       kep-fleet runs [BOARD] [--from TIME] [--to TIME] [--format text|json|csv]\n"
    "                 [--config FILE]\n"
    "       kep-fleet export BOARD [--from TIME] [--to TIME] [--format json|csv]\n"
    "                 [--config FILE]\n";

constexpr const char *kDescription =
    "Collects from a fleet of boards on a schedule, keeps what they said, and shows\n"
    "it; or copies, lists or prints what was kept.";

constexpr const char *kExitStatuses =
    "Of runs and export:\n"
    "  --from TIME, --to TIME      Only runs that began at the first and before the\n"
    "                              second\n"
    "  --format text|json|csv      How to print [text of runs, json of export]\n"
    "TIME is as 2026-11-23 or 2026-11-23T03:50:21, of UTC, or as 90m, 12h or 7d ago.\n"
    "\n"
    "Exit status:\n"
    "  0  all well; of the server, that a signal ended it and all is stored\n"
    "  1  the configuration or a names file is refused, an address cannot be listened\n"
    "     at, the store cannot be used, or something could not be stored at the end\n"
    "  2  wrong usage\n"
    "  4  broken off: by SIGINT or SIGTERM while printing, or because the output could\n"
    "     not be written\n";

struct Options {
  std::vector<std::string> hosts;
  std::string config;
  bool check = false;
  std::string backup;
  std::string board;
  int64_t from = INT64_MIN, to = INT64_MAX;  // milliseconds since 1970
  kepserver::Style style;
};

int64_t nowMs() { return int64_t{std::time(nullptr)} * 1000; }

int64_t readMoment(const std::string &option, const std::string &text) {
  std::tm fields{};
  for (const char *const format : {"%Y-%m-%dT%H:%M:%SZ", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d"}) {
    fields = {};
    const char *const end = strptime(text.c_str(), format, &fields);
    if (end && *end == '\0') return int64_t{timegm(&fields)} * 1000;
  }
  const std::string units = "smhd";
  const size_t unit = text.empty() ? std::string::npos : units.find(text.back());
  if (unit == std::string::npos) throw CLI::ValidationError(option, "no time: " + text);
  constexpr int64_t kSeconds[] = {1, 60, 3600, 86400};
  return nowMs() - wholeNumber(option, text.substr(0, text.size() - 1), 0, 1'000'000'000) * kSeconds[unit] * 1000;
}

CLI::Option *addMoment(CLI::App &app, const std::string &name, int64_t &moment, const std::string &help) {
  const auto read = [name, &moment](const std::string &text) { moment = readMoment(name, text); };
  return app.add_option_function<std::string>(name, read, help)->type_name("TIME");
}

void addFormat(CLI::App &app, kepserver::Style &style, const std::vector<std::string> &formats) {
  using kepserver::Format;
  const auto read = [&style](const std::string &name) {
    style.format = name == "json" ? Format::kJson : name == "csv" ? Format::kCsv : Format::kText;
  };
  const std::string names = CLI::detail::join(formats, "|");
  app.add_option_function<std::string>("--format", read, "How to print [" + formats[0] + "]")
      ->type_name(names)
      ->check(CLI::IsMember(formats));
}

Config configOf(const Options &options) {
  if (!options.config.empty()) return readConfig(options.config);
  return defaultConfig(options.hosts);
}

// ---- the server

// Boards connect by the thousand.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// A large answer is made by whichever thread is free: were each to keep memory of its own, what one answer takes would
// in time be held many times over.
void shareMemory() { mallopt(M_ARENA_MAX, 2); }

sigset_t blockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// What is wrong with names files, and among them, is known before anything changes.
void checkNames(const Config &config) {
  NamesBook names;
  names.load(config);
  MetricNames metrics(names.all());
}

void reload(Fleet &fleet, Metrics &metrics, const std::string &path) {
  if (path.empty()) return;
  try {
    const Config config = readConfig(path);
    checkNames(config);
    fleet.reload(config);
    metrics.configure(config);
  } catch (const std::exception &error) {  // of the configuration, or such as for want of memory
    spdlog::error("the configuration stays as it is: {}", error.what());
  }
}

Exports exportsOf(Metrics &metrics, Fleet &fleet) {
  const auto now = [] {
    const auto since1970 = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(since1970).count();
  };
  Exports exports;
  exports.metrics = [&metrics, &fleet, now](const Pieces &take) {
    metrics.write(fleet.boards(), fleet.health(), now(), take);
  };
  exports.probe = [&metrics, now](const BoardState &board, const Run &run, const Pieces &take) {
    metrics.writeProbe(board, run, now(), take);
  };
  exports.discovery = [&fleet] { return serviceDiscovery(fleet.boards()); };
  return exports;
}

// A store may be long in opening: a signal meanwhile ends the process at once, as there is nothing to be stored yet.
std::unique_ptr<Fleet> openFleet(const Config &config) {
  auto opening = std::async(std::launch::async, [&config] { return std::make_unique<Fleet>(config); });
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM}) sigaddset(&signals, number);
  const timespec slice = {0, 20'000'000};
  while (opening.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    if (const int number = sigtimedwait(&signals, nullptr, &slice); number > 0) {
      spdlog::info("ending, as by signal {}", number);
      std::_Exit(kGood);
    }
  }
  return opening.get();
}

// The threads inherit the mask: a signal comes to nobody but sigwait.
ExitStatus serve(const Config &config) {
  const sigset_t signals = blockSignals();
  failIfSignalled();
  raiseDescriptorLimit();
  shareMemory();
  setUpLog(config.log);
  const std::unique_ptr<Fleet> opened = openFleet(config);
  Fleet &fleet = *opened;
  Metrics metrics(config, fleet.names());
  fleet.start();
  HttpServer http(config, fleet.boards(), fleet.names(), fleet, exportsOf(metrics, fleet));
  http.start();
  const bool isSix = config.http.address.find(':') != std::string::npos;
  spdlog::info(isSix ? "the page is at http://[{}]:{}{}/" : "the page is at http://{}:{}{}/", config.http.address,
               http.port(), config.http.prefix);
  int number = 0;
  while (sigwait(&signals, &number) != 0 || number == SIGHUP) reload(fleet, metrics, config.path);
  spdlog::info("ending, as by signal {}", number);
  const bool isServed = http.stop();
  const Fleet::End end = fleet.stop();
  if (isServed && end == Fleet::End::kGood) return kGood;
  std::_Exit(end == Fleet::End::kLost ? kDamaged : kGood);  // threads may wait for a store that does not answer
}

// ---- what was kept

std::string momentText(int64_t milliseconds) {
  const std::time_t seconds = milliseconds / 1000;
  std::tm fields{};
  gmtime_r(&seconds, &fields);
  std::array<char, 40> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &fields);
  const std::string thousandths = std::to_string(1000 + milliseconds % 1000).substr(1);
  return std::string(text.data()) + "." + thousandths + "Z";
}

constexpr std::array<std::string_view, kTypes> kTypeNames = {"0", "1", "2", "selftest"};

void putRunText(kepserver::Sink &out, const StoredRun &stored) {
  const Run &run = stored.run;
  out << stored.id << "  " << momentText(run.started) << "  " << kepserver::printable(run.board) << "  type "
      << kTypeNames.at(static_cast<size_t>(run.type)) << "  " << nameOf(run.outcome) << "  " << run.duration << " ms  "
      << run.messages << " messages  " << stored.bytes << " bytes";
  if (!run.reason.empty()) out << "  " << kepserver::printable(run.reason);
  out << '\n';
}

void putRun(kepserver::Sink &out, const kepserver::Style &style, const StoredRun &stored) {
  const Run &run = stored.run;
  const std::string_view type = kTypeNames.at(static_cast<size_t>(run.type));
  if (style.format == kepserver::Format::kJson) {
    kepserver::JsonLine(out, "run", style)
        .number("id", stored.id)
        .text("board", run.board)
        .word("started", momentText(run.started))
        .word("type", type)
        .word("outcome", nameOf(run.outcome))
        .number("duration_ms", run.duration)
        .number("messages", run.messages)
        .number("bytes", stored.bytes)
        .text("reason", run.reason)
        .end();
  } else if (style.format == kepserver::Format::kCsv) {
    kepserver::CsvLine line(out, style, std::to_string(stored.id));
    line.text(run.board).word(momentText(run.started)).word(type).word(nameOf(run.outcome));
    line.number(run.duration).number(run.messages).number(stored.bytes).text(run.reason).end();
  } else {
    putRunText(out, stored);
  }
}

RunQuery queryOf(const Options &options, const std::string &board) {
  RunQuery query;
  query.board = board;
  query.from = options.from;
  query.to = options.to;
  return query;
}

ExitStatus listRuns(const Options &options) {
  const auto store = openStoreToRead(configOf(options).store);
  kepserver::Sink out(std::cout);
  if (options.style.format == kepserver::Format::kJson) kepserver::putLayout(out, "kep-fleet-runs", 1);
  if (options.style.format == kepserver::Format::kCsv) {
    out << "id,board,started,type,outcome,duration_ms,messages,bytes,reason\n";
  }
  const std::vector<std::string> boards =
      options.board.empty() ? store->boards() : std::vector<std::string>{options.board};
  for (const std::string &board : boards) {
    store->runs(queryOf(options, board), [&](StoredRun &&stored) {
      putRun(out, options.style, stored);
      return !signalled();
    });
  }
  out.flush();
  failIfSignalled();  // what is printed may be a part
  return kGood;
}

// A board that is configured no more has no names.
ExitStatus exportRuns(const Options &options) {
  const Config config = configOf(options);
  NamesBook names;
  names.load(config);
  BoardConfig board;
  for (const BoardConfig &one : config.boards) board = one.name == options.board ? one : board;
  const auto store = openStoreToRead(config.store);
  kepserver::RunReporter reporter(std::cout, options.style);
  RunQuery query = queryOf(options, options.board);
  query.withStreams = true;
  store->runs(query, [&](StoredRun &&stored) {
    const kepserver::Run run = decode(stored.run);
    reporter.setHeading({"", 0, static_cast<uint64_t>(stored.id), stored.run.started / 1000});
    reporter.write(run, *names.of(board, identityOf(run)), stored.run.started / 1000);
    return !signalled();
  });
  failIfSignalled();
  return kGood;
}

ExitStatus check(const Config &config) {
  checkNames(config);
  std::cout << "good: " << config.boards.size() << (config.boards.size() == 1 ? " board, " : " boards, ")
            << config.polls.size() << (config.polls.size() == 1 ? " schedule\n" : " schedules\n");
  return kGood;
}

// ---- the line

struct Commands {
  CLI::App *backup, *runs, *exported;
};

Commands addCommands(CLI::App &app, Options &options) {
  describe(app, kUsageText, kExitStatuses);
  app.add_option("HOST", options.hosts, "Board to collect from, HOST or HOST:PORT; type 0 every 15 s")->type_name("");
  CLI::Option *const config =
      app.add_option("--config", options.config, "What to collect, how often, and where to keep it");
  config->type_name("FILE")->check(checkFile);
  app.add_flag("--check", options.check, "Look at the configuration and its names files, and exit")->needs(config);
  Commands commands{app.add_subcommand("backup", "Copy an SQLite store while it is in use"),
                    app.add_subcommand("runs", "List what was collected"),
                    app.add_subcommand("export", "Print what a board said")};
  commands.backup->add_option("FILE", options.backup, "New file")->required()->check(checkFile)->type_name("");
  commands.runs->add_option("BOARD", options.board, "Only this board's")->type_name("");
  commands.exported->add_option("BOARD", options.board, "The board's name")->required()->type_name("");
  for (CLI::App *const command : {commands.runs, commands.exported}) {
    addMoment(*command, "--from", options.from, "Of this time and later");
    addMoment(*command, "--to", options.to, "Of before this time");
  }
  addFormat(*commands.runs, options.style, {"text", "json", "csv"});
  addFormat(*commands.exported, options.style, {"json", "csv"});
  for (CLI::App *const command : {commands.backup, commands.runs, commands.exported}) command->fallthrough();
  return commands;
}

ExitStatus runServer(int argc, char **argv) {
  Options options;
  CLI::App app(kDescription, "kep-fleet");
  const Commands commands = addCommands(app, options);
  const auto look = [&] {
    const bool isServer = app.get_subcommands().empty();
    if (!isServer && (!options.hosts.empty() || options.check)) throw CLI::ExtrasError({"HOST or --check"});
    if (isServer && options.hosts.empty() == options.config.empty()) throw CLI::RequiredError("HOST or --config");
  };
  if (const auto status = readLine(app, argc, argv, look)) return *status;
  if (commands.exported->parsed() && options.style.format == kepserver::Format::kText) {
    options.style.format = kepserver::Format::kJson;
  }
  if (commands.backup->parsed()) {
    backupStore(configOf(options).store, options.backup);
    return kGood;
  }
  if (commands.runs->parsed()) return listRuns(options);
  if (commands.exported->parsed()) return exportRuns(options);
  const Config config = configOf(options);
  return options.check ? check(config) : serve(config);
}

ExitStatus runCommand(int argc, char **argv) {
  try {
    return runServer(argc, argv);
  } catch (const ConfigError &error) {
    throw Failure{kDamaged, error.what()};
  } catch (const StoreError &error) {
    throw Failure{kDamaged, error.what()};
  }
}

}  // namespace

int main(int argc, char **argv) { return runMain("kep-fleet", argc, argv, runCommand); }
