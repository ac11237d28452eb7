// command_line.cpp: CLI11, without what it makes of numbers and addresses.

#include "common/command_line.hpp"

#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

namespace kepcommand {

namespace {

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

std::string complaint(const CLI::App *app, const CLI::Error &error) {
  return app->get_name() + ": " + error.what() + "; see --help\n";
}

// CLI11 would read 010 as eight and 0x10 as sixteen.
template <class Number>
std::optional<Number> decimal(const std::string &text) {
  Number number = 0;
  const char *const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end) return std::nullopt;
  return number;
}

}  // namespace

void describe(CLI::App &app, const std::string &usage, const std::string &exitStatuses) {
  app.formatter(std::make_shared<HelpFormatter>(usage));
  app.footer(exitStatuses);
  app.set_version_flag("--version", app.get_name() + " " KEP_COMMAND_VERSION, "Print the version and exit");
  app.failure_message(complaint);
}

std::optional<ExitStatus> readLine(CLI::App &app, int argc, char **argv, const std::function<void()> &check) {
  try {
    app.parse(argc, argv);
    check();
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? kGood : kUsage;
  }
  return std::nullopt;
}

int64_t wholeNumber(const std::string &option, const std::string &text, int64_t smallest, int64_t largest) {
  const std::optional<int64_t> number = decimal<int64_t>(text);
  if (number && *number >= smallest && *number <= largest) return *number;
  throw CLI::ValidationError(
      option, "not a number from " + std::to_string(smallest) + " to " + std::to_string(largest) + ": " + text);
}

CLI::Option *addSeconds(CLI::App &app, const std::string &name, std::chrono::milliseconds &variable,
                        const std::string &help) {
  const auto read = [name, &variable](const std::string &text) {
    const std::optional<double> seconds = decimal<double>(text);
    if (!seconds || !(*seconds >= 0.001 && *seconds <= 1e6)) {  // in this form: "nan" is a number, too
      throw CLI::ValidationError(name, "not a number of seconds from 0.001 to 1000000: " + text);
    }
    variable = std::chrono::milliseconds(std::llround(*seconds * 1000));
  };
  return app.add_option_function<std::string>(name, read, help);
}

void addStyle(CLI::App &app, kepserver::Style &style) {
  using kepserver::Format;
  const auto read = [&style](const std::string &name) {
    style.format = name == "json" ? Format::kJson : name == "csv" ? Format::kCsv : Format::kText;
  };
  app.add_option_function<std::string>("--format", read, "How to print [text]")
      ->type_name("text|json|csv")
      ->check(CLI::IsMember({"text", "json", "csv"}));
  app.add_flag("--big-as-text", style.bigAsText, "In json, whole numbers beyond 2^53 in quotes");
  app.add_flag("--csv-raw", style.csvRaw,
               "In csv, texts as they are, even those that a spreadsheet takes for formulas");
}

void addWidth(CLI::App &app, kepserver::Style &style) {
  addNumber(app, "--width", style.width, 1, 10'000,
            "With names, the length of lines, at which texts are broken [a terminal's width]")
      ->type_name("N");
  app.add_flag("--cut", style.isCut, "With names, cut what is longer than a line, rather than break it");
}

void fitToTerminal(kepserver::Style &style) {
  if (isatty(STDOUT_FILENO) == 0) return;
  winsize size{};
  if (style.width == 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) style.width = size.ws_col;
  const char *const noColour = std::getenv("NO_COLOR");
  style.colours = !noColour || *noColour == '\0';
}

std::string checkAddress(const std::string &text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ? "" : "not an IPv4 address: " + text;
}

std::string checkHost(const std::string &text) {
  in_addr address{};
  if (text.find_first_of(":/% \t\n\v\f\r") != std::string::npos) return "not a host: " + text;
  const bool isNumeric = text.find_first_not_of("0123456789.") == std::string::npos;
  return isNumeric || inet_aton(text.c_str(), &address) != 0 ? checkAddress(text) : "";
}

std::string checkFile(const std::string &text) { return text.empty() ? "no file" : ""; }

}  // namespace kepcommand
