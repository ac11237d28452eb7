// process.hpp: what the commands have in common as processes: their statuses, their output, and the signals that end
// them.
//
// A command ends at its first signal, SIGINT or SIGTERM, whatever it waits for: within a second, as what is printed to
// std::cout and std::cerr is broken off half a second after the signal, taken or not.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace kepcommand {

enum ExitStatus { kGood = 0, kDamaged = 1, kUsage = 2, kNoAnswer = 3, kBrokenOff = 4, kTestFailed = 5 };

// Ends what a command is at, and mostly the command.
struct Failure {
  ExitStatus status;
  std::string text;
};

[[noreturn]] void failWithErrno(ExitStatus status, const std::string &what);

// Runs a command and returns its exit status: `kBrokenOff` when an exception ends it that is no Failure, as std::cout
// throws when it cannot be written. From the start on a signal is only noted; a second one of the same kind kills.
int runMain(const char *name, int argc, char **argv, ExitStatus (*run)(int, char **));

// Writes a line to standard error, with the command's name in front.
void complain(const std::string &text);

// Whether SIGINT or SIGTERM has come.
bool signalled();
void failIfSignalled();  // throws Failure, kBrokenOff

// From now on SIGHUP ends a wait and nothing else; one that comes meanwhile stays for the next.
void catchHangup();

using Clock = std::chrono::steady_clock;

enum class Wake { kReady, kTimeout, kSignal, kHangup };

// Waits until an entry is ready, without a deadline for as long as it takes.
Wake waitUntil(pollfd *entries, nfds_t count, std::optional<Clock::time_point> deadline);

// A descriptor, or -1, closed with the object.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor();
  int get() const { return fd_; }

 private:
  int fd_;
};

// Opens a file, with the flags of open(2). Throws Failure: kUsage, or kBrokenOff when a signal came.
Descriptor openFile(const std::string &path, int flags);

// Opens a file to be read, standard input for "-". Throws Failure, as for a folder.
Descriptor openInput(const std::string &path);

// Reads up to the end, or until a portion is not taken. Throws Failure, kBrokenOff.
void readPortions(const Descriptor &file, const std::string &path,
                  const std::function<bool(const char *bytes, size_t size)> &take);

// A file's content, of at most so many MiB. Throws Failure, with kDamaged for a larger one.
std::string contentOf(const std::string &path, size_t maxMebibytes);

// Writes all of it, unless it fails; also false when the time after a signal is over, and nothing more is to be
// written.
bool writeAll(int fd, const char *bytes, size_t size);

}  // namespace kepcommand
