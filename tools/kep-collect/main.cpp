// main.cpp: the command line of kep-collect.

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "common/command.hpp"
#include "report.hpp"
#include "session.hpp"

namespace {

using namespace kepcollect;

constexpr char kUsageText[] =
    "Usage: kep-collect HOST [OPTIONS]\n"
    "       kep-collect --replay FILE [--format text|json|csv]\n";

constexpr const char *kDescription =
    "Asks a board for a collection or a self-test run and prints what it sends, or\n"
    "decodes a stream kept earlier.\n"
    "Data goes to standard output, diagnostics go to standard error.";

constexpr const char *kExitStatuses =
    "Exit status:\n"
    "  0  all whole\n"
    "  1  the data is damaged, or cut short: the board closed the connection, or the\n"
    "     file ended, before the run's last message\n"
    "  2  wrong usage, a file that cannot be opened, or an ADDR that is not local\n"
    "  3  no answer: HOST is unknown, cannot be reached or refuses, or a wait timed\n"
    "     out, be it for the connection or for data in the middle of a run\n"
    "  4  broken off: by SIGINT or SIGTERM, by a connection that was reset, or because\n"
    "     the output could not be written or the file not be read\n"
    "With --watch, the status of the last run that was not 0.\n";

struct Options {
  Request request;
  std::optional<int32_t> sequence;
  bool selfTest = false;
  double timeout = 10;
  double watch = 0;  // 0: a single run
  std::string rawFile;
  std::string replayFile;
  std::string format = "text";
};

void complain(const std::string &text) { std::cerr << "kep-collect: " << text << std::endl; }

// CLI::Range would let "nan" through.
std::string checkSeconds(const std::string &text) {
  double seconds = 0;
  const bool good = CLI::detail::lexical_cast(text, seconds) && seconds >= 0.001 && seconds <= 1e6;
  return good ? "" : "not a number of seconds from 0.001 to 1000000: " + text;
}

// A board cannot tell a request with sequence -1 from a damaged datagram and never answers it.
std::string checkSequence(const std::string &text) {
  int32_t sequence = 0;
  const bool good = CLI::detail::lexical_cast(text, sequence) && sequence != -1;
  return good ? "" : "not a 32-bit number other than -1: " + text;
}

void addLiveOptions(CLI::App &app, Options &options, CLI::Option *replay) {
  Request &request = options.request;
  const auto add = [&](const std::string &name, auto &variable, const std::string &type, const std::string &help) {
    return app.add_option(name, variable, help)->type_name(type)->excludes(replay);
  };
  add("HOST", request.host, "", "Name or IPv4 address of the board");
  add("--port", request.port, "PORT", "UDP port at which the board takes requests [9099]")->check(CLI::Range(1, 65535));
  CLI::Option *type = add("--type", request.type, "0|1|2", "What to collect; the board says what each means [0]");
  type->check(CLI::Range(0, 2));
  app.add_flag("--selftest", options.selfTest, "Ask for a self-test run")->excludes(type)->excludes(replay);
  add("--listen", request.listenAddress, "ADDR", "Local IPv4 address that the board connects to [any]")
      ->check(CLI::ValidIPV4);
  add("--sequence", options.sequence, "N", "Number of the first message, not -1; 0: the board's next [by the clock]")
      ->check(checkSequence);
  add("--timeout", options.timeout, "SECONDS", "Longest wait for the connection, and for data each time [10]")
      ->check(checkSeconds);
  add("--watch", options.watch, "SECONDS", "Start a run every so many seconds until interrupted")->check(checkSeconds);
  add("--raw", options.rawFile, "FILE", "Keep the bytes received; every run overwrites FILE");
}

void addOptions(CLI::App &app, Options &options) {
  app.formatter(std::make_shared<HelpFormatter>(kUsageText));
  app.footer(kExitStatuses);
  CLI::Option *replay = app.add_option("--replay", options.replayFile, "Decode FILE, kept by --raw, and ask no board");
  replay->type_name("FILE")->check(CLI::ExistingFile);
  addLiveOptions(app, options, replay);
  app.add_option("--format", options.format, "How to print [text]")
      ->type_name("text|json|csv")
      ->check(CLI::IsMember({"text", "json", "csv"}));
}

Format formatOf(const std::string &name) {
  if (name == "json") return Format::kJson;
  return name == "csv" ? Format::kCsv : Format::kText;
}

// Differs from one millisecond to the next, so that a late answer to an earlier request is told apart; never 0 or -1.
int32_t sequenceByClock() {
  const auto now =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch());
  return static_cast<int32_t>(1 + now.count() % 1'000'000'000);
}

ExitStatus report(const Outcome &outcome, Reporter &reporter) {
  if (outcome.connected) reporter.write(outcome.run);
  if (!outcome.diagnostic.empty()) complain(outcome.diagnostic);
  return outcome.status;
}

ExitStatus replayFile(const Options &options, Reporter &reporter) {
  std::ifstream file(options.replayFile, std::ios::binary);
  if (!file) {
    complain("cannot open " + options.replayFile);
    return kUsage;
  }
  StreamDecoder decoder({});
  std::array<char, 4096> buffer;
  do {
    file.read(buffer.data(), buffer.size());
    decoder.feed(buffer.data(), static_cast<size_t>(file.gcount()));
  } while (file);
  if (!file.bad()) decoder.finish();
  Outcome outcome = outcomeOf(decoder);
  outcome.connected = true;
  if (file.bad()) outcome = {kBrokenOff, "cannot read " + options.replayFile, true, decoder.run()};
  return report(outcome, reporter);
}

ExitStatus runOnce(const Options &options, Reporter &reporter) {
  std::ofstream raw;
  if (!options.rawFile.empty()) {
    raw.open(options.rawFile, std::ios::binary);
    if (!raw) {
      complain("cannot open " + options.rawFile);
      return kUsage;
    }
  }
  return report(collect(options.request, options.rawFile.empty() ? nullptr : &raw), reporter);
}

// One run, or with a period to watch runs until a signal comes or the command itself cannot go on.
ExitStatus runAll(Options options, Reporter &reporter) {
  using std::chrono::duration;
  const auto period = std::chrono::duration_cast<Clock::duration>(duration<double>(options.watch));
  catchSignals();
  ExitStatus status = kWhole;
  for (;;) {
    const Clock::time_point start = Clock::now();
    options.request.sequence = options.sequence ? *options.sequence : sequenceByClock();
    const ExitStatus last = runOnce(options, reporter);
    if (last != kWhole) status = last;
    if (options.watch == 0 || last == kUsage || !std::cout || !sleepUntil(start + period)) return status;
  }
}

int runCommand(int argc, char **argv) {
  Options options;
  CLI::App app(kDescription, "kep-collect");
  addOptions(app, options);
  try {
    app.parse(argc, argv);
    if (options.request.host.empty() && options.replayFile.empty()) throw CLI::RequiredError("HOST or --replay");
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? kWhole : kUsage;
  }
  options.request.timeout =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(options.timeout));
  if (options.selfTest) options.request.type = kSelfTestRequest;
  Reporter reporter(std::cout, formatOf(options.format));
  return options.replayFile.empty() ? runAll(options, reporter) : replayFile(options, reporter);
}

}  // namespace

int main(int argc, char **argv) { return runMain(argc, argv, runCommand, complain, kBrokenOff); }
