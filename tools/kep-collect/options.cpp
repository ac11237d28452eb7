#include "kep-collect/options.hpp"

#include <CLI/CLI.hpp>

#include "common/command_line.hpp"

namespace kepcollect {

namespace {

using namespace kepcommand;

constexpr char kUsageText[] =
    "Usage: kep-collect HOST... [OPTIONS]\n"
    "       kep-collect --replay FILE [--names FILE | --names-dir DIR] [--width N] [--cut]\n"
    "                   [--format text|json|csv] [--big-as-text] [--csv-raw]\n";

constexpr const char *kDescription =
    "Asks boards, all at once, for a collection or a self-test run and prints what each\n"
    "sends, or decodes a stream kept earlier.\n"
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
    "Of several boards, the highest. With --watch, the status of the last run.\n";

struct Line {
  Request request;
  bool selfTest = false;
};

void addLiveOptions(CLI::App &app, Line &line, Options &options, CLI::Option *replay) {
  const auto live = [replay](CLI::Option *option, const std::string &type) {
    return option->type_name(type)->excludes(replay);
  };
  live(app.add_option("HOST", options.boards, "Names or IPv4 addresses of boards, and :PORT where it is another"), "");
  for (CLI::Option *option : addRequestOptions(app, line.request)) option->excludes(replay);
  live(app.add_flag("--selftest", line.selfTest, "Ask for a self-test run"), "")->excludes("--type");
  live(addNumber(app, "--sequence", options.sequence, INT32_MIN, INT32_MAX,
                 "Number of the first message, not -1; 0: the board's next [random]"),
       "N");
  live(addSeconds(app, "--watch", options.watch, "Start a run every so many seconds until interrupted"), "SECONDS");
  app.add_flag("--only-changes", options.onlyChanges, "With --watch, print what differs from the run before")
      ->needs("--watch");
  app.add_flag("--until-pass", options.untilPass, "With names, watch self-tests until one passes, of all boards")
      ->needs("--selftest")
      ->needs("--watch");
  live(app.add_option("--raw", options.rawFile, "Keep the bytes received; every run that begins overwrites FILE"),
       "FILE")
      ->check(checkFile);
}

void addOptions(CLI::App &app, Line &line, Options &options) {
  describe(app, kUsageText, kExitStatuses);
  CLI::Option *replay = app.add_option("--replay", options.replayFile,
                                       "Decode FILE, kept by --raw (-: standard input), and ask no board");
  replay->type_name("FILE")->check(checkFile);
  addLiveOptions(app, line, options, replay);
  options.names.addOptions(app);
  addWidth(app, options.style);
  addStyle(app, options.style);
}

// What one option alone does not show.
void check(const CLI::App &app, const Line &line, Options &options) {
  if (options.boards.empty() && options.replayFile.empty()) throw CLI::RequiredError("HOST or --replay");
  if (options.boards.size() > 1 && !options.rawFile.empty()) {
    throw CLI::ValidationError("--raw", "a file holds the run of one board");
  }
  const bool needsNames = options.style.width != 0 || options.style.isCut || options.untilPass;
  if (needsNames && !options.names.areGiven()) throw CLI::RequiredError("--names or --names-dir");
  if (options.sequence == kNeverAnswered) throw CLI::ValidationError("--sequence", "no board answers -1");
  for (const std::string &board : options.boards) {
    options.requests.push_back(requestTo(app, "HOST", board, line.request));
    if (line.selfTest) options.requests.back().type = kSelfTestRequest;
  }
}

}  // namespace

std::optional<ExitStatus> readOptions(int argc, char **argv, Options &options) {
  CLI::App app(kDescription, "kep-collect");
  Line line;
  addOptions(app, line, options);
  if (const auto status = readLine(app, argc, argv, [&] { check(app, line, options); })) return status;
  fitToTerminal(options.style);
  return std::nullopt;
}

}  // namespace kepcollect
