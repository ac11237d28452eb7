// process.hpp: what the commands have in common as processes: their statuses, their output, and the signals that end
// them.
//
// A command ends at its first signal, whatever it waits for: no call here, nor what is printed to std::cout and
// std::cerr, goes on waiting for another program once SIGINT or SIGTERM has come.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace kepcommand {

enum ExitStatus { kGood = 0, kDamaged = 1, kUsage = 2, kNoAnswer = 3, kBrokenOff = 4 };

// Ends what a command is at, and mostly the command.
struct Failure {
  ExitStatus status;
  std::string text;
};

[[noreturn]] void failWithErrno(ExitStatus status, const std::string &what);

// Runs a command and returns its exit status: `kBrokenOff` when an exception ends it that is no Failure, or its output
// cannot be written. From the start on a signal is only noted; a second one of the same kind ends the process.
int runMain(const char *name, int argc, char **argv, ExitStatus (*run)(int, char **));

// Writes a line to standard error, with the command's name in front.
void complain(const std::string &text);

// Whether SIGINT or SIGTERM has come.
bool signalled();

using Clock = std::chrono::steady_clock;

enum class Wake { kReady, kTimeout, kSignal };

// Waits until an entry is ready, without a deadline for as long as it takes.
Wake waitUntil(pollfd *entries, nfds_t count, std::optional<Clock::time_point> deadline);

// A descriptor, or -1, closed with the object.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&) = delete;
  ~Descriptor();
  int get() const { return fd_; }

 private:
  int fd_;
};

// Opens a file, with the flags of open(2). Throws Failure: kUsage, or kBrokenOff when a signal came.
Descriptor openFile(const std::string &path, int flags);

// Returns how many bytes came, 0 at the end. Throws Failure, kBrokenOff.
size_t readSome(int fd, void *buffer, size_t size, const std::string &path);

// Writes all of it, unless it fails or, after a signal, nobody takes it: then false.
bool writeAll(int fd, const char *bytes, size_t size);

}  // namespace kepcommand
