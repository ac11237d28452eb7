// command.hpp: what the commands have in common: the form of --help, and how their main ends.
#pragma once

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <utility>

// The generated help would not show that there are two ways to call a command, and would tell each option's checks.
class HelpFormatter : public CLI::Formatter {
 public:
  explicit HelpFormatter(std::string usage) : usage_(std::move(usage)) {}

  std::string make_usage(const CLI::App * /*app*/, std::string /*name*/) const override { return usage_; }

  std::string make_option_opts(const CLI::Option *option) const override {
    const std::string type = option->get_type_name();  // with the checks behind a colon
    return type.empty() ? "" : " " + type.substr(0, type.find(':'));
  }

 private:
  std::string usage_;
};

// Runs a command and returns its exit status: `brokenOff` when an exception ends it or its output cannot be written.
inline int runMain(int argc, char **argv, int (*run)(int, char **), void (*complain)(const std::string &),
                   int brokenOff) {
  (void)std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away is a write error like any other
  int status = brokenOff;
  try {
    status = run(argc, argv);
  } catch (const std::exception &error) {
    complain(error.what());
  }
  if (!std::cout.flush()) {
    complain("cannot write the output");
    return brokenOff;
  }
  return status;
}
