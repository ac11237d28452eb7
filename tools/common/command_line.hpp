// command_line.hpp: what the commands' lines have in common: the form of --help, --version and complaints, and what an
// address and a number are.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "common/process.hpp"
#include "server/print.hpp"

namespace kepcommand {

// Gives a command its help and --version, and its complaints the command's name in front.
void describe(CLI::App &app, const std::string &usage, const std::string &exitStatuses);

// Reads a command's line, which `check` then looks at as a whole; either throws a CLI::ParseError. Returns the
// command's status where there is nothing left to be done: the help is printed, or what is wrong.
std::optional<ExitStatus> readLine(
    CLI::App &app, int argc, char **argv, const std::function<void()> &check = [] {});

// Throws a CLI::ParseError unless `text` is a whole number of that range, all decimal: a zero in front means nothing.
int64_t wholeNumber(const std::string &option, const std::string &text, int64_t smallest, int64_t largest);

// Adds an option whose value is such a number.
template <class Number>
CLI::Option *addNumber(CLI::App &app, const std::string &name, Number &variable, int64_t smallest, int64_t largest,
                       const std::string &help) {
  const auto read = [=, &variable](const std::string &text) {
    variable = static_cast<Number>(wholeNumber(name, text, smallest, largest));
  };
  return app.add_option_function<std::string>(name, read, help);
}

// Adds an option whose value is a time in seconds, from a millisecond to eleven days.
CLI::Option *addSeconds(CLI::App &app, const std::string &name, std::chrono::milliseconds &variable,
                        const std::string &help);

// Adds --format, --big-as-text and --csv-raw.
void addStyle(CLI::App &app, kepserver::Style &style);

// Adds --width and --cut, for text with names.
void addWidth(CLI::App &app, kepserver::Style &style);

// Where the output is a terminal: its width, unless another is given, and colours, unless NO_COLOR is set.
void fitToTerminal(kepserver::Style &style);

// Checks for options, empty when all is well. An address is four decimal numbers and nothing else; a host is one, or a
// name that no system call would take for some other form of one, such as 127.1 or 0x7f000001, and that may be one:
// no URL, no address with a port, a scope or a blank. A file has a name; whether it can be opened, the opening tells.
std::string checkAddress(const std::string &text);
std::string checkHost(const std::string &text);
std::string checkFile(const std::string &text);

}  // namespace kepcommand
