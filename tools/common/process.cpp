// process.cpp: output, and the signals.
//
// A signal interrupts the call that waits, and is noted. As it may come just before the call, a timer goes on
// interrupting from then on, so that no wait lasts longer than a tick without a look at what was noted.

#include "common/process.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <ios>
#include <iostream>
#include <streambuf>

namespace kepcommand {

namespace {

constexpr long kSecondNs = 1'000'000'000;
constexpr long kTickNs = kSecondNs / 5;
constexpr int kPatience = 2;  // ticks: so long output goes on after a signal

const char *sg_name = "";
timer_t sg_timer{};
volatile std::sig_atomic_t sg_signalled = 0;
volatile std::sig_atomic_t sg_ticks = 0;  // since the signal
volatile std::sig_atomic_t sg_hungUp = 0;
bool sg_catchesHangup = false;  // which is blocked then, but in waits

extern "C" void noteSignal(int /*number*/) {
  const int before = errno;
  sg_signalled = 1;
  const itimerspec tick = {{0, kTickNs}, {0, kTickNs}};
  timer_settime(sg_timer, 0, &tick, nullptr);
  errno = before;
}

extern "C" void noteTick(int /*number*/) { sg_ticks = sg_ticks + 1; }

extern "C" void noteHangup(int /*number*/) { sg_hungUp = 1; }

void handle(int number, void (*handler)(int), int flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;  // without SA_RESTART: the call that waits ends
  sigaction(number, &action, nullptr);
}

void changeMask(int how, std::initializer_list<int> numbers) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : numbers) sigaddset(&signals, number);
  sigprocmask(how, &signals, nullptr);
}

void catchSignals() {
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGRTMIN;
  if (timer_create(CLOCK_MONOTONIC, &event, &sg_timer) != 0) failWithErrno(kBrokenOff, "cannot make a timer");
  handle(SIGRTMIN, noteTick, 0);
  handle(SIGINT, noteSignal, static_cast<int>(SA_RESETHAND));
  handle(SIGTERM, noteSignal, static_cast<int>(SA_RESETHAND));
  handle(SIGPIPE, SIG_IGN, 0);                           // a reader that goes away is a write error like any other,
  handle(SIGXFSZ, SIG_IGN, 0);                           // as is a file that becomes too large
  changeMask(SIG_UNBLOCK, {SIGRTMIN, SIGINT, SIGTERM});  // whoever started the command may have blocked them
}

// Otherwise a file or a socket could become one of these, and get what is meant for them. In place of one that is
// closed stands one that can only be read: printing to it fails, as it would have.
bool openStandardDescriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDONLY) != fd) return false;
  }
  return true;
}

// Sends a stream's output to a descriptor. The C library's streams lose what they hold when a signal comes.
class Output : public std::streambuf {
 public:
  Output(std::ostream &stream, int fd) : stream_(stream), before_(stream.rdbuf(this)), fd_(fd) {
    setp(buffer_.data(), buffer_.data() + buffer_.size());
  }
  Output(const Output &) = delete;
  Output &operator=(const Output &) = delete;
  ~Output() override { stream_.rdbuf(before_); }

 protected:
  int_type overflow(int_type character) override {
    if (sync() != 0) return traits_type::eof();
    if (!traits_type::eq_int_type(character, traits_type::eof())) sputc(traits_type::to_char_type(character));
    return traits_type::not_eof(character);
  }

  int sync() override {
    const bool written = writeAll(fd_, pbase(), static_cast<size_t>(pptr() - pbase()));
    setp(buffer_.data(), buffer_.data() + buffer_.size());
    return written ? 0 : -1;
  }

 private:
  std::array<char, 16384> buffer_;
  std::ostream &stream_;
  std::streambuf *before_;
  int fd_;
};

// Returns how many bytes came, 0 at the end.
size_t readSome(int fd, void *buffer, size_t size, const std::string &path) {
  while (!signalled()) {
    const ssize_t count = read(fd, buffer, size);
    if (count >= 0) return static_cast<size_t>(count);
    if (errno != EINTR) failWithErrno(kBrokenOff, "cannot read " + (path == "-" ? "standard input" : path));
  }
  throw Failure{kBrokenOff, "interrupted"};
}

}  // namespace

void failWithErrno(ExitStatus status, const std::string &what) {
  throw Failure{status, what + ": " + std::strerror(errno)};
}

int runMain(const char *name, int argc, char **argv, ExitStatus (*run)(int, char **)) {
  if (!openStandardDescriptors()) return kBrokenOff;
  sg_name = name;
  const Output out(std::cout, STDOUT_FILENO);
  const Output err(std::cerr, STDERR_FILENO);
  std::cout.exceptions(std::ios::badbit);  // nothing more is made of what cannot be printed
  std::cerr.tie(nullptr);                  // or a complaint of it would throw, too
  try {
    catchSignals();
    const ExitStatus status = run(argc, argv);
    std::cout.flush();
    return status;
  } catch (const Failure &failure) {
    complain(failure.text);
    return failure.status;
  } catch (const std::ios_base::failure &) {
    complain(signalled() ? "interrupted" : "cannot write the output");
  } catch (const std::exception &error) {
    complain(error.what());
  }
  return kBrokenOff;
}

void complain(const std::string &text) { std::cerr << sg_name + (": " + text + '\n'); }

bool signalled() { return sg_signalled != 0; }

void failIfSignalled() {
  if (signalled()) throw Failure{kBrokenOff, "interrupted"};
}

void catchHangup() {
  sg_catchesHangup = true;
  changeMask(SIG_BLOCK, {SIGHUP});
  handle(SIGHUP, noteHangup, 0);
}

Wake waitUntil(pollfd *entries, nfds_t count, std::optional<Clock::time_point> deadline) {
  using std::chrono::nanoseconds;
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  if (sg_catchesHangup) sigdelset(&mask, SIGHUP);
  while (!signalled()) {
    const nanoseconds left =
        deadline ? std::max(nanoseconds(*deadline - Clock::now()), nanoseconds(0)) : nanoseconds(0);
    const timespec limit = {left.count() / kSecondNs, left.count() % kSecondNs};
    const int ready = ppoll(entries, count, deadline ? &limit : nullptr, &mask);
    if (ready > 0) return Wake::kReady;
    if (ready == 0) return Wake::kTimeout;
    if (errno != EINTR) failWithErrno(kBrokenOff, "cannot wait");
    if (sg_hungUp != 0) {
      sg_hungUp = 0;
      return Wake::kHangup;
    }
  }
  return Wake::kSignal;
}

Descriptor::~Descriptor() {
  if (fd_ >= 0) close(fd_);
}

Descriptor openFile(const std::string &path, int flags) {
  constexpr mode_t kReadWrite = 0666;  // as far as the umask lets it
  while (!signalled()) {
    Descriptor file(open(path.c_str(), flags | O_CLOEXEC, kReadWrite));
    if (file.get() >= 0) return file;
    if (errno != EINTR) failWithErrno(kUsage, "cannot open " + path);
  }
  throw Failure{kBrokenOff, "interrupted"};
}

Descriptor openInput(const std::string &path) {
  if (path == "-") return Descriptor(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
  Descriptor file = openFile(path, O_RDONLY);
  struct stat status {};
  if (fstat(file.get(), &status) == 0 && S_ISDIR(status.st_mode)) {
    errno = EISDIR;
    failWithErrno(kUsage, "cannot open " + path);
  }
  return file;
}

void readPortions(const Descriptor &file, const std::string &path,
                  const std::function<bool(const char *, size_t)> &take) {
  std::array<char, 65536> buffer;
  while (const size_t size = readSome(file.get(), buffer.data(), buffer.size(), path)) {
    if (!take(buffer.data(), size)) return;
  }
}

std::string contentOf(const std::string &path, size_t maxMebibytes) {
  std::string content;
  readPortions(openInput(path), path, [&](const char *bytes, size_t size) {
    content.append(bytes, size);
    if (content.size() > maxMebibytes << 20) {
      throw Failure{kDamaged, path + ": more than " + std::to_string(maxMebibytes) + " MiB"};
    }
    return true;
  });
  return content;
}

bool writeAll(int fd, const char *bytes, size_t size) {
  while (size > 0) {
    const ssize_t count = write(fd, bytes, size);
    if (count == 0 || (count < 0 && errno != EINTR)) return false;
    if (signalled() && sg_ticks >= kPatience) return false;
    if (count < 0) continue;
    bytes += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

}  // namespace kepcommand
