// main.cpp: kep-collect: runs asked for or replayed, judged by their names, and printed.

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/names_file.hpp"
#include "common/process.hpp"
#include "common/session.hpp"
#include "kep-collect/options.hpp"
#include "server/present.hpp"
#include "server/run_report.hpp"

namespace {

using namespace kepcollect;
using namespace kepcommand;
using namespace kepserver;

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

// Prints what came of the boards' runs, of each whole and in the order of the line.
class Report {
 public:
  explicit Report(Options &options)
      : options_(options),
        reporter_(std::cout, options.style),
        areMany_(options.boards.size() > 1),
        before_(options.boards.size()) {}

  // Of one run of a board, which `heading` tells from others. Returns what it comes to.
  ExitStatus write(size_t board, Outcome outcome, Heading heading, int64_t collected);

 private:
  const Names *namesOf(Outcome &outcome);
  void print(const Outcome &outcome, const Names *names, int64_t collected, const Run *before);

  Options &options_;
  RunReporter reporter_;
  bool areMany_;
  bool hasToldSignal_ = false;
  std::vector<std::optional<Run>> before_;  // by board; the last that was whole, where only changes are printed
};

ExitStatus Report::write(size_t board, Outcome outcome, Heading heading, int64_t collected) {
  const Names *const names = namesOf(outcome);
  if (areMany_) heading.board = options_.boards[board];
  heading.status = outcome.status;
  reporter_.setHeading(heading);
  const bool hasBefore = options_.onlyChanges && before_[board];
  print(outcome, names, collected, hasBefore ? &*before_[board] : nullptr);
  const bool isBrokenOff = signalled();  // be it while it was printed
  if (!outcome.diagnostic.empty()) complain((areMany_ ? heading.board + ": " : "") + outcome.diagnostic);
  if (options_.onlyChanges && outcome.run.whole) before_[board].emplace(std::move(outcome.run));
  if (!isBrokenOff) return outcome.status;
  if (!std::exchange(hasToldSignal_, true)) complain("interrupted");
  return kBrokenOff;
}

// Judges the outcome by them, too. They are none where they are refused, and nullptr where none are asked for.
const Names *Report::namesOf(Outcome &outcome) {
  if (!options_.names.areGiven()) return nullptr;
  try {
    const Names &names = options_.names.of(outcome.run);
    judgeOutcome(names, outcome);
    return &names;
  } catch (const Failure &failure) {
    if (outcome.status == kGood) {
      outcome.status = failure.status;
      outcome.diagnostic = failure.text;
    }
    return &noNames();
  }
}

void Report::print(const Outcome &outcome, const Names *names, int64_t collected, const Run *before) {
  if (!outcome.connected) {
    if (areMany_) reporter_.writeNone(names != nullptr);
  } else if (names) {
    reporter_.write(outcome.run, *names, collected, before);
  } else {
    reporter_.write(outcome.run, before);
  }
}

// A file was written when its run was collected; a pipe brings what has just been.
int64_t collectedAt(const Descriptor &file) {
  struct stat status {};
  return fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_mtime : std::time(nullptr);
}

ExitStatus replayFile(Options &options) {
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
    outcome = {failure.status, signalled() ? "" : failure.text, false, decoder.takeRun()};
  }
  outcome.connected = true;
  return Report(options).write(0, std::move(outcome), {}, collectedAt(file));
}

// What comes of one run of each board.
struct Round {
  ExitStatus highest = kGood;
  bool isHopeless = true;  // nothing can come of any other
};

// All runs are over before the first is printed: a reader who takes his time holds up none of them.
Round runOnce(Options &options, const Heading &heading, Report &report) {
  for (Request &request : options.requests) request.sequence = options.sequence ? *options.sequence : randomSequence();
  const Descriptor raw = options.rawFile.empty() ? Descriptor(-1) : openFile(options.rawFile, O_WRONLY | O_CREAT);
  std::vector<Outcome> outcomes = collect(options.requests, raw.get());
  const int64_t collected = std::time(nullptr);
  Round round;
  for (size_t board = 0; board < outcomes.size(); ++board) {
    round.isHopeless &= outcomes[board].status == kUsage;
    round.highest = std::max(round.highest, report.write(board, std::move(outcomes[board]), heading, collected));
  }
  return round;
}

// One run of each board, or with a period to watch runs until a signal comes or all is hopeless.
ExitStatus runAll(Options &options) {
  const bool isWatched = options.watch.count() != 0;
  Report report(options);
  Heading heading;
  for (;;) {
    const Clock::time_point start = Clock::now();
    heading.number += isWatched ? 1 : 0;
    heading.time = std::time(nullptr);
    const Round round = runOnce(options, heading, report);
    if (!isWatched || round.isHopeless || (options.untilPass && round.highest == kGood)) return round.highest;
    if (waitUntil(nullptr, 0, start + options.watch) == Wake::kSignal) return round.highest;
  }
}

ExitStatus runCommand(int argc, char **argv) {
  Options options;
  if (const auto status = readOptions(argc, argv, options)) return *status;
  options.names.prepare();
  return options.replayFile.empty() ? runAll(options) : replayFile(options);
}

}  // namespace

int main(int argc, char **argv) { return runMain("kep-collect", argc, argv, runCommand); }
