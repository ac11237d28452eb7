// main.cpp: the command line of kep-config.

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <sstream>
#include <string>

#include "common/command_line.hpp"
#include "common/process.hpp"
#include "ini.hpp"
#include "query.hpp"
#include "server.hpp"

namespace {

using namespace kepcommand;
using namespace kepconfig;

constexpr size_t kMaxMebibytes = 16;  // of the file

constexpr char kUsageText[] =
    "Usage: kep-config FILE [--listen ADDR] [--port PORT] [--echo-default]\n"
    "       kep-config --query SECTION KEY DEFAULT [--server ADDR] [--port PORT]\n"
    "                  [--timeout SECONDS]\n";

constexpr const char *kDescription =
    "Answers the configuration queries of boards with the values in FILE until SIGINT\n"
    "or SIGTERM ends it, or plays a board and asks. SIGHUP has it read FILE again.\n"
    "The log of queries, or the answer, goes to standard output, diagnostics go to\n"
    "standard error.";

constexpr const char *kExitStatuses =
    "Exit status:\n"
    "  0  good: ended by a signal, or answered\n"
    "  1  the data is damaged: FILE has an error, be it in its form, a key that stands\n"
    "     twice or a value of more than 1000 bytes\n"
    "  2  wrong usage, a file that cannot be opened, an ADDR that is not local, or a\n"
    "     PORT that is taken or not permitted\n"
    "  3  no answer, or the query could not be sent; the default is printed\n"
    "  4  broken off: by SIGINT or SIGTERM while asking or reading FILE, or because the\n"
    "     output could not be written, the file not be read or the network not be used\n";

struct Options {
  std::string file;
  Endpoint listen{"0.0.0.0", 0};
  Endpoint server{"255.255.255.255", 0};
  uint16_t port = 8999;
  bool echoDefault = false;
  bool asks = false;
  Query query;
  std::chrono::milliseconds timeout{1000};
};

// Returns the option whose three texts are the query.
CLI::Option *addOptions(CLI::App &app, Options &options) {
  describe(app, kUsageText, kExitStatuses);
  // Bound to no variable and read as it was typed: a default may look like an option, a list or nothing at all.
  CLI::Option *query = app.add_option("--query", CLI::callback_t{}, "Ask for a value as a board does, and print it");
  query->type_size(3)->type_name("SECTION KEY DEFAULT");
  app.add_option("FILE", options.file, "The values: [section], key = value, and ; or # in front of a comment")
      ->check(CLI::ExistingFile)
      ->type_name("")
      ->excludes(query);
  app.add_option("--listen", options.listen.address,
                 "Local IPv4 address to serve at; any but 0.0.0.0 keeps boards' broadcasts out [0.0.0.0]")
      ->check(checkAddress)
      ->type_name("ADDR")
      ->excludes(query);
  addNumber(app, "--port", options.port, 0, 65535, "UDP port of the server; 0: any that is free, which is told [8999]")
      ->type_name("PORT");
  app.add_flag("--echo-default", options.echoDefault, "Answer a query for an unknown key with its own default")
      ->excludes(query);
  app.add_option("--server", options.server.address, "IPv4 address to ask [255.255.255.255, the broadcast]")
      ->check(checkAddress)
      ->type_name("ADDR")
      ->needs(query);
  addSeconds(app, "--timeout", options.timeout, "Longest wait for the answer [1]")->type_name("SECONDS")->needs(query);
  return query;
}

// What the single options' checks cannot see.
void settle(Options &options, const CLI::Option &query) {
  options.listen.port = options.server.port = options.port;
  options.asks = query.count() > 0;
  if (!options.asks) {
    if (options.file.empty()) throw CLI::RequiredError("FILE or --query");
    return;
  }
  options.query = {query.results().at(0), query.results().at(1), query.results().at(2)};
  if (!canBeAsked(options.query)) {
    throw CLI::ValidationError("--query", "SECTION or KEY is empty or holds a blank, or the three are too long");
  }
  if (options.port == 0) throw CLI::ValidationError("--port", "nobody can be asked at port 0");
}

Settings settingsIn(const std::string &path) {
  std::istringstream text(contentOf(path, kMaxMebibytes));
  try {
    return parseIni(text);
  } catch (const IniError &error) {
    throw Failure{kDamaged, path + ":" + std::to_string(error.line()) + ": " + error.what()};
  }
}

// A file that is broken, or gone, leaves the values as they are.
void reload(const std::string &path, Settings &settings) {
  try {
    settings = settingsIn(path);
    complain("read " + path + " again");
  } catch (const Failure &failure) {
    if (!signalled()) complain(failure.text + "; the values stay as they are");
  }
}

ExitStatus runServer(const Options &options) {
  Settings settings = settingsIn(options.file);
  const Socket socket(options.listen);
  catchHangup();
  complain("serving " + options.file + " at " + nameOf(socket.local()));
  while (serve(socket, settings, options.echoDefault, std::cout)) reload(options.file, settings);
  return kGood;
}

void print(const std::string &value) {
  std::cout << value << std::endl;
  failIfSignalled();
}

// Prints what a board would go on with.
ExitStatus runQuery(const Options &options) {
  try {
    const std::string reply = ask(options.server, options.query, options.timeout);
    print(reply.empty() ? options.query.defaultValue : reply);
    if (reply.empty()) complain("the answer is empty: a board takes the default");
    return kGood;
  } catch (const Failure &failure) {
    if (failure.status == kNoAnswer) print(options.query.defaultValue);
    throw;
  }
}

ExitStatus runCommand(int argc, char **argv) {
  Options options;
  CLI::App app(kDescription, "kep-config");
  const CLI::Option *query = addOptions(app, options);
  if (const auto status = readLine(app, argc, argv, [&] { settle(options, *query); })) return *status;
  return options.asks ? runQuery(options) : runServer(options);
}

}  // namespace

int main(int argc, char **argv) { return runMain("kep-config", argc, argv, runCommand); }
