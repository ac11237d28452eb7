// command.hpp: a command run by a test, its files and its man page.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

constexpr int kPatienceMs = 20'000;  // a test that waits this long has failed

inline std::string contentOf(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

inline sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

// What the pattern's first group matches in a text.
inline std::set<std::string> namesIn(const std::string &text, const std::string &pattern) {
  const std::regex regex(pattern);
  std::set<std::string> names;
  for (std::sregex_iterator it(text.begin(), text.end(), regex), end; it != end; ++it) names.insert((*it)[1]);
  return names;
}

// One run of a command, its output and diagnostics in these files. It ends with the object at the latest.
class Command {
 public:
  Command(std::string program, std::vector<std::string> arguments, std::string outPath, std::string errPath)
      : outPath_(std::move(outPath)), errPath_(std::move(errPath)) {
    arguments.insert(arguments.begin(), std::move(program));
    std::vector<char *> argv;
    for (std::string &argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    unlink(errPath_.c_str());  // what an earlier run said is not ours
    child_ = fork();
    if (child_ != 0) return;
    dup2(open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
    dup2(open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
    alarm(kPatienceMs / 1000);  // holds for the command, too
    execv(argv[0], argv.data());
    _exit(127);
  }
  Command(const Command &) = delete;
  Command &operator=(const Command &) = delete;
  ~Command() {
    if (child_ > 0) kill(child_, SIGKILL);
    status();
  }

  std::string out() const { return contentOf(outPath_); }
  std::string err() const { return contentOf(errPath_); }
  void signal(int number) const { kill(child_, number); }

  // Waits for the end: the exit status, or 1000 and the signal.
  int status() {
    int status = 0;
    if (child_ <= 0 || waitpid(std::exchange(child_, 0), &status, 0) <= 0) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }

 private:
  std::string outPath_;
  std::string errPath_;
  pid_t child_ = 0;
};
