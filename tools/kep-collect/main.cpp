// main.cpp: the command line of kep-collect.

#include <fcntl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/command_line.hpp"
#include "common/names_file.hpp"
#include "common/process.hpp"
#include "common/session.hpp"
#include "server/present.hpp"
#include "server/run_report.hpp"

namespace {

using namespace kepcommand;
using namespace kepserver;

constexpr char kUsageText[] =
    "Usage: kep-collect HOST [OPTIONS]\n"
    "       kep-collect --replay FILE [--names FILE | --names-dir DIR] [--width N]\n"
    "                   [--format text|json|csv] [--big-as-text] [--csv-raw]\n";

constexpr const char *kDescription =
    "Asks a board for a collection or a self-test run and prints what it sends, or\n"
    "decodes a stream kept earlier.\n"
    "Data goes to standard output, diagnostics go to standard error.";

constexpr const char *kExitStatuses =
    "Exit status:\n"
    "  0  all whole\n"
    "  1  the data is damaged, or cut short: the board closed the connection, or the\n"
    "     file ended, before the run's last message (as far as can be told: see the man\n"
    "     page); or the names file has an error\n"
    "  2  wrong usage, a file that cannot be opened, or an ADDR that is not local\n"
    "  3  no answer: HOST is unknown, cannot be reached or refuses, or a wait timed\n"
    "     out, be it for the connection or for data in the middle of a run\n"
    "  4  broken off: by SIGINT or SIGTERM, by a connection that was reset, or because\n"
    "     the output or the raw file could not be written or the file not be read\n"
    "  5  all whole, but a test has failed, or one that is named did not come\n"
    "With --watch, the status of the last run.\n";

struct Options {
  Request request;
  std::optional<int32_t> sequence;
  bool selfTest = false;
  bool untilPass = false;
  std::chrono::milliseconds watch{0};  // 0: a single run
  std::string rawFile;
  std::string replayFile;
  Style style;
  BoardNames names;
};

void addLiveOptions(CLI::App &app, Options &options, CLI::Option *replay) {
  Request &request = options.request;
  const auto live = [replay](CLI::Option *option, const std::string &type) {
    return option->type_name(type)->excludes(replay);
  };
  live(addHost(app, "HOST", request, "Name or IPv4 address of the board, and :PORT where it is another"), "");
  for (CLI::Option *option : addRequestOptions(app, request)) option->excludes(replay);
  live(app.add_flag("--selftest", options.selfTest, "Ask for a self-test run"), "")->excludes("--type");
  live(addNumber(app, "--sequence", options.sequence, INT32_MIN, INT32_MAX,
                 "Number of the first message, not -1; 0: the board's next [random]"),
       "N");
  live(addSeconds(app, "--watch", options.watch, "Start a run every so many seconds until interrupted"), "SECONDS");
  app.add_flag("--until-pass", options.untilPass, "With names, watch self-tests until one passes")
      ->needs("--selftest")
      ->needs("--watch");
  live(app.add_option("--raw", options.rawFile, "Keep the bytes received; every run that begins overwrites FILE"),
       "FILE")
      ->check(checkFile);
}

void addOptions(CLI::App &app, Options &options) {
  describe(app, kUsageText, kExitStatuses);
  CLI::Option *replay = app.add_option("--replay", options.replayFile,
                                       "Decode FILE, kept by --raw (-: standard input), and ask no board");
  replay->type_name("FILE")->check(checkFile);
  addLiveOptions(app, options, replay);
  options.names.addOptions(app);
  addWidth(app, options.style);
  addStyle(app, options.style);
}

// What an outcome comes to in the light of its names.
void judgeOutcome(const Names &names, Outcome &outcome) {
  if (outcome.status != kGood) return;
  if (isCutShort(names, outcome.run)) {
    outcome.run.whole = false;
    outcome.status = kDamaged;
    outcome.diagnostic =
        describe({outcome.run.byteCount, "fewer data messages than the items that report, and the last one", true});
  } else if (outcome.run.selfTest && judge(names, outcome.run).tests.failed > 0) {
    outcome.status = kTestFailed;
  }
}

// The run of a board whose names are refused is printed without them.
void print(Outcome &outcome, int64_t collected, Options &options, RunReporter &reporter) {
  if (!options.names.areGiven()) return reporter.write(outcome.run);
  try {
    const Names &names = options.names.of(outcome.run);
    judgeOutcome(names, outcome);
    reporter.write(outcome.run, names, collected);
  } catch (const Failure &failure) {
    reporter.write(outcome.run, {}, collected);
    if (outcome.status != kGood) return;
    outcome.status = failure.status;
    outcome.diagnostic = failure.text;
  }
}

ExitStatus report(Outcome outcome, int64_t collected, Options &options, RunReporter &reporter) {
  if (outcome.connected) print(outcome, collected, options, reporter);
  if (signalled()) {  // be it while it was printed
    complain("interrupted");
    return kBrokenOff;
  }
  if (!outcome.diagnostic.empty()) complain(outcome.diagnostic);
  return outcome.status;
}

// A file was written when its run was collected; a pipe brings what has just been.
int64_t collectedAt(const Descriptor &file) {
  struct stat status {};
  return fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_mtime : std::time(nullptr);
}

ExitStatus replayFile(Options &options, RunReporter &reporter) {
  const std::string &path = options.replayFile;
  const Descriptor file = openInput(path);
  StreamDecoder decoder({});
  Outcome outcome;
  try {
    readPortions(file, path, [&decoder](const char *bytes, size_t size) {
      decoder.feed(bytes, size);
      return !decoder.damage();
    });
    decoder.finish();
    outcome = outcomeOf(decoder);
  } catch (const Failure &failure) {
    outcome = {failure.status, failure.text, false, decoder.takeRun()};
  }
  outcome.connected = true;
  return report(std::move(outcome), collectedAt(file), options, reporter);
}

ExitStatus runOnce(Options &options, RunReporter &reporter) {
  const Descriptor raw = options.rawFile.empty() ? Descriptor(-1) : openFile(options.rawFile, O_WRONLY | O_CREAT);
  Outcome outcome = collect(options.request, raw.get());
  return report(std::move(outcome), std::time(nullptr), options, reporter);
}

// One run, or with a period to watch runs until a signal comes or the command itself cannot go on.
ExitStatus runAll(Options &options, RunReporter &reporter) {
  for (uint64_t number = 1;; ++number) {
    const Clock::time_point start = Clock::now();
    options.request.sequence = options.sequence ? *options.sequence : randomSequence();
    if (options.watch.count() != 0) reporter.stampNext(number, std::time(nullptr));
    const ExitStatus status = runOnce(options, reporter);
    if (options.watch.count() == 0 || status == kUsage || (options.untilPass && status == kGood)) return status;
    if (waitUntil(nullptr, 0, start + options.watch) == Wake::kSignal) return status;
  }
}

ExitStatus runCommand(int argc, char **argv) {
  Options options;
  CLI::App app(kDescription, "kep-collect");
  addOptions(app, options);
  const auto check = [&options] {
    if (options.request.host.empty() && options.replayFile.empty()) throw CLI::RequiredError("HOST or --replay");
    if ((options.style.width != 0 || options.untilPass) && !options.names.areGiven()) {
      throw CLI::RequiredError("--names or --names-dir");
    }
    if (options.sequence == kNeverAnswered) throw CLI::ValidationError("--sequence", "no board answers -1");
  };
  if (const auto status = readLine(app, argc, argv, check)) return *status;
  if (options.selfTest) options.request.type = kSelfTestRequest;
  options.names.prepare();
  fitToTerminal(options.style);
  RunReporter reporter(std::cout, options.style);
  return options.replayFile.empty() ? runAll(options, reporter) : replayFile(options, reporter);
}

}  // namespace

int main(int argc, char **argv) { return runMain("kep-collect", argc, argv, runCommand); }
