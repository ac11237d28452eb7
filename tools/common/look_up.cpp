// look_up.cpp: a process that asks the C library, and a pipe for its answer.

#include "common/look_up.hpp"

#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace kepcommand {

namespace {

struct Answer {
  int error;  // of getaddrinfo
  in_addr address;
};

// GCOVR_EXCL_START: the process that it is done in keeps no counts
// Nothing is released: the process ends with it.
Answer answerFor(const std::string &host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *found = nullptr;
  Answer answer{};
  answer.error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (answer.error != 0) return answer;
  sockaddr_in address{};
  std::memcpy(&address, found->ai_addr, sizeof address);
  answer.address = address.sin_addr;
  return answer;
}
// GCOVR_EXCL_STOP

}  // namespace

LookUp::LookUp(const std::string &host) : host_(host), answer_(-1) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) < 0) failWithErrno(kNoAnswer, "cannot make a pipe");
  answer_ = Descriptor(ends[0]);
  const Descriptor out(ends[1]);
  process_ = fork();
  if (process_ < 0) failWithErrno(kNoAnswer, "cannot look up " + host);
  if (process_ > 0) return;
  const Answer answer = answerFor(host);                                     // GCOVR_EXCL_LINE
  _exit(write(out.get(), &answer, sizeof answer) == sizeof answer ? 0 : 1);  // GCOVR_EXCL_LINE
}

LookUp::~LookUp() {
  if (process_ < 0) return;
  kill(process_, SIGKILL);
  while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) continue;
}

in_addr LookUp::address() const {
  Answer answer{};
  ssize_t size = 0;
  do {
    size = read(answer_.get(), &answer, sizeof answer);
  } while (size < 0 && errno == EINTR);
  if (size != sizeof answer) throw Failure{kNoAnswer, "cannot look up " + host_};
  if (answer.error != 0) throw Failure{kNoAnswer, host_ + ": " + gai_strerror(answer.error)};
  return answer.address;
}

}  // namespace kepcommand
