// main.cpp: the command line of kep-faultlog.

#include <CLI/CLI.hpp>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "common/command_line.hpp"
#include "common/names_file.hpp"
#include "common/process.hpp"
#include "server/fault_file.hpp"
#include "server/fault_report.hpp"

namespace {

using namespace kepcommand;
using namespace kepserver;

constexpr char kUsageText[] =
    "Usage: kep-faultlog FILE [--names FILE] [--format text|json|csv] [--csv-raw]\n"
    "                    [--big-as-text] [--fault NAME]\n"
    "                    [--type init|run|register|counter|value]\n"
    "       kep-faultlog FILE --check\n";

constexpr const char *kDescription =
    "Prints the file to which a board saves the logs and values of its faults.\n"
    "Data goes to standard output, diagnostics go to standard error.";

constexpr const char *kExitStatuses =
    "Exit status:\n"
    "  0  all whole\n"
    "  1  the file is damaged or cut short, as far as can be told: see the man page; or\n"
    "     the names file has an error\n"
    "  2  wrong usage, or a file that cannot be opened\n"
    "  4  broken off: by SIGINT or SIGTERM, or because the output could not be written\n"
    "     or the file not be read\n";

struct Options {
  std::string file;
  Style style;
  FaultFilter filter;
  std::string namesFile;
  bool checks = false;
};

void addOptions(CLI::App &app, Options &options) {
  describe(app, kUsageText, kExitStatuses);
  app.add_option("FILE", options.file, "The file; - for standard input")->required()->check(checkFile)->type_name("");
  CLI::Option *check = app.add_flag("--check", options.checks, "Print only whether the file is whole");
  addNames(app, options.namesFile)->excludes(check);
  addStyle(app, options.style);
  app.add_option("--fault", options.filter.fault, "Print only what belongs to the fault of this name")
      ->type_name("NAME")
      ->excludes(check);
  app.add_option("--type", options.filter.type, "Print only a log, or values of one kind")
      ->type_name("init|run|register|counter|value")
      ->check(CLI::IsMember(std::vector<std::string>(kFaultTypes.begin(), kFaultTypes.end())))
      ->excludes(check);
}

void printVerdict(const FaultFile &file, const std::optional<Damage> &damage) {
  std::cout << (damage ? describe(*damage) + "; whole before it: " : "whole: ") << countsOf(file) << std::endl;
}

// Prints also what came of a file that is not whole, or that cannot be read to its end.
ExitStatus run(const Options &options) {
  std::optional<Names> names;
  if (!options.namesFile.empty()) names = readNamesFile(options.namesFile);
  const Descriptor input = openInput(options.file);
  FaultFileReader reader;
  std::optional<Failure> failure;
  try {
    readPortions(input, options.file, [&reader](const char *bytes, size_t size) {
      reader.feed(bytes, size);
      return !reader.damage();
    });
  } catch (const Failure &found) {
    failure = found;
  }
  FaultFile file = reader.finish();
  if (failure) file.whole = false;
  if (!options.checks) {
    writeFaultFile(std::cout, options.style, file, options.filter, names ? &*names : nullptr);
  } else if (!failure) {
    printVerdict(file, reader.damage());
  }
  failIfSignalled();  // be it while it was printed
  if (failure) throw Failure(*failure);
  if (!reader.damage()) return kGood;
  if (!options.checks) complain(describe(*reader.damage()));
  return kDamaged;
}

ExitStatus runCommand(int argc, char **argv) {
  Options options;
  CLI::App app(kDescription, "kep-faultlog");
  addOptions(app, options);
  if (const auto status = readLine(app, argc, argv)) return *status;
  return run(options);
}

}  // namespace

int main(int argc, char **argv) { return runMain("kep-faultlog", argc, argv, runCommand); }
