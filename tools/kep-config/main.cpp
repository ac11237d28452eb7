// main.cpp: the command line of kep-config.

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "common/command.hpp"
#include "ini.hpp"
#include "query.hpp"
#include "server.hpp"

namespace {

using namespace kepconfig;

constexpr char kUsageText[] =
    "Usage: kep-config FILE [--listen ADDR] [--port PORT] [--echo-default]\n"
    "       kep-config --query SECTION KEY DEFAULT [--server ADDR] [--port PORT]\n"
    "                  [--timeout SECONDS]\n";

constexpr const char *kDescription =
    "Answers the configuration queries of boards with the values in FILE until SIGINT\n"
    "or SIGTERM ends it, or plays a board and asks.\n"
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
    "  4  broken off: by SIGINT or SIGTERM while asking, or because the output could\n"
    "     not be written, the file not be read or the network not be used\n";

struct Options {
  std::string file;
  Endpoint listen{"0.0.0.0", 0};
  Endpoint server{"255.255.255.255", 0};
  uint16_t port = 8999;
  bool echoDefault = false;
  bool asks = false;
  Query query;
  double timeout = 1;
};

void complain(const std::string &text) { std::cerr << "kep-config: " << text << std::endl; }

// CLI::Range would let "nan" through.
std::string checkSeconds(const std::string &text) {
  double seconds = 0;
  const bool good = CLI::detail::lexical_cast(text, seconds) && seconds >= 0.001 && seconds <= 1e6;
  return good ? "" : "not a number of seconds from 0.001 to 1000000: " + text;
}

// CLI::ValidIPV4 would let "0x7f.0.0.01" through, which no system call takes.
std::string checkAddress(const std::string &text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ? "" : "not an IPv4 address: " + text;
}

// Returns the option whose three texts are the query.
CLI::Option *addOptions(CLI::App &app, Options &options) {
  app.formatter(std::make_shared<HelpFormatter>(kUsageText));
  app.footer(kExitStatuses);
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
  app.add_option("--port", options.port, "UDP port of the server; 0: any that is free, which is told [8999]")
      ->check(CLI::Range(0, 65535))
      ->type_name("PORT");
  app.add_flag("--echo-default", options.echoDefault, "Answer a query for an unknown key with its own default")
      ->excludes(query);
  app.add_option("--server", options.server.address, "IPv4 address to ask [255.255.255.255, the broadcast]")
      ->check(checkAddress)
      ->type_name("ADDR")
      ->needs(query);
  app.add_option("--timeout", options.timeout, "Longest wait for the answer [1]")
      ->check(checkSeconds)
      ->type_name("SECONDS")
      ->needs(query);
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

ExitStatus runServer(const Options &options) {
  std::ifstream file(options.file, std::ios::binary);
  if (!file) {
    complain("cannot open " + options.file);
    return kUsage;
  }
  Settings settings;
  try {
    settings = parseIni(file);
  } catch (const IniError &error) {
    // Without the command's name in front, so that editors find the line.
    std::cerr << options.file << ':' << error.line() << ": " << error.what() << std::endl;
    return kDamaged;
  }
  if (file.bad()) throw Failure{kBrokenOff, "cannot read " + options.file};
  const Socket socket(options.listen);
  complain("serving " + options.file + " at " + nameOf(socket.local()));
  serve(socket, settings, options.echoDefault, std::cout);
  return kGood;
}

// Prints what a board would go on with.
ExitStatus runQuery(const Options &options) {
  const auto timeout =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(options.timeout));
  try {
    const std::string reply = ask(options.server, options.query, timeout);
    std::cout << (reply.empty() ? options.query.defaultValue : reply) << std::endl;
    if (reply.empty()) complain("the answer is empty: a board takes the default");
    return kGood;
  } catch (const Failure &failure) {
    if (failure.status == kNoAnswer) std::cout << options.query.defaultValue << std::endl;
    throw;
  }
}

int runCommand(int argc, char **argv) {
  Options options;
  CLI::App app(kDescription, "kep-config");
  const CLI::Option *query = addOptions(app, options);
  try {
    app.parse(argc, argv);
    settle(options, *query);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? kGood : kUsage;
  }
  try {
    catchSignals();
    return options.asks ? runQuery(options) : runServer(options);
  } catch (const Failure &failure) {
    complain(failure.text);
    return failure.status;
  }
}

}  // namespace

int main(int argc, char **argv) { return runMain(argc, argv, runCommand, complain, kBrokenOff); }
