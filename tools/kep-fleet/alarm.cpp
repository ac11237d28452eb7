// alarm.cpp: commands are looked at every few milliseconds while there are some; nothing waits for one.

#include "kep-fleet/alarm.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <spdlog/spdlog.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "server/text.hpp"

namespace kepfleet {

namespace {

constexpr size_t kMostWaiting = 1000;
constexpr std::chrono::milliseconds kLook{20};

std::string jsonOf(const Event &event) {
  const nlohmann::json json = {{"board", kepserver::printable(event.board)},
                               {"time", event.time},
                               {"kind", nameOf(event.kind)},
                               {"text", kepserver::printable(event.text)}};
  return json.dump() + "\n";
}

// A file that only the command knows: unlike a pipe it never fills up. -1: there is none to be had.
int fileWith(const std::string &text) {
  const int file = memfd_create("kep-event", MFD_CLOEXEC);
  if (file < 0) return -1;
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t size = write(file, text.data() + written, text.size() - written);
    if (size <= 0) break;
    written += static_cast<size_t>(size);
  }
  if (written == text.size() && lseek(file, 0, SEEK_SET) == 0) return file;
  close(file);
  return -1;
}

// Of the server's own only what any command needs: the rest may hold the store's password.
std::vector<std::string> environment() {
  std::vector<std::string> variables;
  for (const char *const name : {"PATH", "HOME", "LANG", "LC_ALL", "TZ"}) {
    const char *const value = std::getenv(name);
    if (value) variables.push_back(std::string(name) + "=" + value);
  }
  return variables;
}

// What posix_spawn is told: standard input is `file`, a process group of its own, signals as at the start of a program.
class Setting {
 public:
  explicit Setting(int file) {
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, file, STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  ~Setting() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  Setting(const Setting &) = delete;
  Setting &operator=(const Setting &) = delete;

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
};

// -1: it cannot be started.
pid_t startCommand(const std::string &command, const std::string &input) {
  const int file = fileWith(input);
  if (file < 0) return -1;
  const Setting setting(file);
  std::vector<std::string> variables = environment();
  std::vector<char *> pointers(variables.size() + 1);  // the last: nullptr
  std::transform(variables.begin(), variables.end(), pointers.begin(), [](auto &variable) { return variable.data(); });
  std::array<std::string, 3> words = {"sh", "-c", command};
  std::array<char *, 4> arguments = {words[0].data(), words[1].data(), words[2].data(), nullptr};
  pid_t process = -1;
  const int error =
      posix_spawn(&process, "/bin/sh", &setting.actions, &setting.attributes, arguments.data(), pointers.data());
  close(file);
  return error == 0 ? process : -1;
}

// Whether the shell has ended, and how. It is not yet reaped, so that its number stays that of its group.
std::optional<bool> hasSucceeded(pid_t process) {
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return false;
  if (info.si_pid == 0) return std::nullopt;
  return info.si_code == CLD_EXITED && info.si_status == 0;
}

// Of a shell that has ended, or soon will.
void endGroup(pid_t process) {
  kill(-process, SIGKILL);
  while (waitpid(process, nullptr, 0) < 0 && errno == EINTR) continue;
}

}  // namespace

Alarm::Alarm(const AlarmConfig &config) : config_(config) {
  thread_ = std::thread([this] { work(); });
}

Alarm::~Alarm() { stop(std::chrono::milliseconds(0)); }

void Alarm::configure(const AlarmConfig &config) {
  const std::lock_guard lock(mutex_);
  config_ = config;
}

void Alarm::put(const Event &event) {
  const std::lock_guard lock(mutex_);
  if (config_.command.empty()) return;
  waiting_.push_back(jsonOf(event));
  if (waiting_.size() > kMostWaiting) {
    waiting_.pop_front();
    ++counts_.dropped;
  }
  wake_.notify_one();
}

Alarm::Counts Alarm::counts() const {
  const std::lock_guard lock(mutex_);
  return counts_;
}

void Alarm::stop(std::chrono::milliseconds patience) {
  {
    const std::lock_guard lock(mutex_);
    end_ = std::min(end_, Clock::now() + patience);
    wake_.notify_one();
  }
  if (thread_.joinable()) thread_.join();
}

void Alarm::work() {
  std::unique_lock lock(mutex_);
  const auto isIdle = [this] { return waiting_.empty() && running_.empty(); };
  while (!isIdle() || end_ == Clock::time_point::max()) {
    const Clock::time_point now = Clock::now();
    if (now >= end_) break;
    reap(now);
    startWaiting(lock);
    if (isIdle()) {
      wake_.wait(lock, [&] { return !isIdle() || end_ != Clock::time_point::max(); });
    } else {
      wake_.wait_until(lock, std::min(now + kLook, end_));
    }
  }
  counts_.dropped += waiting_.size();
  counts_.failed += running_.size();
  waiting_.clear();
  for (const Command &command : std::exchange(running_, {})) endGroup(command.process);
}

void Alarm::startWaiting(std::unique_lock<std::mutex> &lock) {
  while (!waiting_.empty() && running_.size() < config_.atOnce) {
    const std::string input = std::move(waiting_.front());
    waiting_.pop_front();
    const AlarmConfig config = config_;
    ++counts_.started;
    lock.unlock();
    const pid_t process = config.command.empty() ? -1 : startCommand(config.command, input);
    lock.lock();
    if (process > 0) {
      running_.push_back({process, Clock::now() + config.limit});
    } else {
      ++counts_.failed;
      spdlog::error("the command for an event cannot be started");
    }
  }
}

// What is killed may take its time to end, for which nobody waits here.
void Alarm::reap(Clock::time_point now) {
  const auto isOver = [&](Command &command) {
    const std::optional<bool> success = hasSucceeded(command.process);
    if (!success && now >= command.deadline && !std::exchange(command.isKilled, true)) kill(-command.process, SIGKILL);
    if (!success) return false;
    endGroup(command.process);
    if (*success) return true;
    ++counts_.failed;
    spdlog::warn("the command for an event {}", command.isKilled ? "took too long, and was ended" : "failed");
    return true;
  };
  running_.erase(std::remove_if(running_.begin(), running_.end(), isOver), running_.end());
}

}  // namespace kepfleet
