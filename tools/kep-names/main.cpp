// main.cpp: the command line of kep-names.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <string>

#include "common/command_line.hpp"
#include "common/names_file.hpp"
#include "common/process.hpp"
#include "common/session.hpp"
#include "server/draft.hpp"
#include "server/lua.hpp"

namespace {

using namespace kepcommand;
using namespace kepserver;

constexpr char kUsageText[] =
    "Usage: kep-names --check FILE\n"
    "       kep-names --lua FILE\n"
    "       kep-names --draft HOST [--type 0|1|2] [--port PORT] [--listen ADDR]\n"
    "                 [--any-source] [--timeout SECONDS]\n";

constexpr const char *kDescription =
    "Checks a names file, which tells what the numbers that a board sends mean;\n"
    "compiles one for the packet dissector; or writes a first one, to be filled in by\n"
    "hand, from a collection and a self-test of a board.\n"
    "What is made goes to standard output, diagnostics go to standard error.";

constexpr const char *kExitStatuses =
    "Exit status:\n"
    "  0  good\n"
    "  1  the names file, or one that it includes, has an error; or what the board sent\n"
    "     is damaged, and the draft is made of what was whole before\n"
    "  2  wrong usage, a file that cannot be opened, or an ADDR that is not local\n"
    "  3  no answer: HOST is unknown, cannot be reached or refuses, or a wait timed out\n"
    "  4  broken off: by SIGINT or SIGTERM, by a connection that was reset, or because\n"
    "     the output could not be written or the file not be read\n";

struct Options {
  std::string check, lua, board;
  Request request;
};

void addOptions(CLI::App &app, Options &options) {
  describe(app, kUsageText, kExitStatuses);
  CLI::Option *const check =
      app.add_option("--check", options.check, "Look for errors in FILE, and in what it includes (-: standard input)");
  CLI::Option *const lua = app.add_option("--lua", options.lua, "Print the names in FILE as a table of Lua");
  CLI::Option *const draft =
      app.add_option("--draft", options.board, "Print a first names file for the board at HOST, or HOST:PORT");
  check->type_name("FILE")->check(checkFile);
  lua->type_name("FILE")->check(checkFile)->excludes(check);
  draft->type_name("HOST")->excludes(check)->excludes(lua);
  for (CLI::Option *option : addRequestOptions(app, options.request)) option->needs(draft);
}

void print(const std::string &text) {
  std::cout << text << std::flush;
  failIfSignalled();
}

std::string count(size_t number, const std::string &what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

ExitStatus checkNames(const std::string &path) {
  const Names names = readNamesFile(path);
  print("good: " + count(names.items.size(), "item") + ", " + count(names.faults.size(), "fault") + "\n");
  return kGood;
}

// One run of the two that a draft needs; what comes of a broken one counts.
Run runOf(Request request, ExitStatus &status) {
  request.sequence = randomSequence();
  Outcome outcome = std::move(collect({request}, -1).front());
  failIfSignalled();
  if (outcome.status == kBrokenOff || !outcome.connected) throw Failure{outcome.status, outcome.diagnostic};
  if (!outcome.diagnostic.empty()) complain(outcome.diagnostic);
  status = std::max(status, outcome.status);
  return std::move(outcome.run);
}

ExitStatus draft(const Options &options) {
  ExitStatus status = kGood;
  const Run collection = runOf(options.request, status);
  Request selfTest = options.request;
  selfTest.type = kSelfTestRequest;
  print(draftNames(collection, runOf(selfTest, status)));
  return status;
}

ExitStatus runCommand(int argc, char **argv) {
  Options options;
  CLI::App app(kDescription, "kep-names");
  addOptions(app, options);
  const auto check = [&] {
    if (!options.check.empty() || !options.lua.empty()) return;
    if (options.board.empty()) throw CLI::RequiredError("--check, --lua or --draft");
    options.request = requestTo(app, "--draft", options.board, options.request);
  };
  if (const auto status = readLine(app, argc, argv, check)) return *status;
  if (!options.check.empty()) return checkNames(options.check);
  if (options.lua.empty()) return draft(options);
  print(luaNames(readNamesFile(options.lua), options.lua));
  return kGood;
}

}  // namespace

int main(int argc, char **argv) { return runMain("kep-names", argc, argv, runCommand); }
