// ZuWrite.hpp: writes that signals do not cut short, and the descriptors that are left to what the host prints.
//
// A signal whose handler does not restart calls ends a write early, and a stream of the C library then throws away what
// it holds. So the bytes go to the descriptor, those for standard output behind what the host has in the stream.
//
// All of it is inline: the service layer for Linux hosts takes it from here, and nothing else of the library.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <ctime>

namespace kep {

// Moves a descriptor above 2, should it be lower, or gives -1. The host may run with descriptors 0 to 2 closed, and
// what it prints would go out by a socket or into a file in their place.
inline int aboveStandard(int fd) {
  constexpr int kFirstOther = 3;
  if (fd < 0 || fd >= kFirstOther) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, kFirstOther);
  close(fd);
  return moved;
}

// Writes all of it, however many signals come; false when a write fails.
inline bool writeWhole(int fd, const void *data, size_t size) {
  const auto *next = static_cast<const char *>(data);
  while (size > 0) {
    const ssize_t written = write(fd, next, size);
    if (written < 0 && errno == EINTR) continue;
    if (written == 0) errno = EIO;
    if (written <= 0) return false;
    next += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

// Waits for two seconds at most: not every descriptor ever tells that it has room.
inline void waitForRoom(int fd) {
  pollfd console = {fd, POLLOUT, 0};
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const time_t end = now.tv_sec + 2;
  while (poll(&console, 1, 1000) < 0 && errno == EINTR && now.tv_sec < end) clock_gettime(CLOCK_MONOTONIC, &now);
}

// What the host has in the stream goes out first. A pipe with room, to which nobody else writes, takes a page of it
// without a wait in which a signal could end it; a console that must not block is not waited for.
inline void flushHostText(int fd) {
  if (__fpending(stdout) == 0) return;
  if ((fcntl(fd, F_GETFL) & O_NONBLOCK) == 0) waitForRoom(fd);
  std::fflush(stdout);
}

inline bool writeToStdout(const char *text, size_t length) {
  const int fd = fileno(stdout);
  if (fd < 0) {  // the host has put a stream without a descriptor in its place
    return std::fwrite(text, 1, length, stdout) == length && std::fflush(stdout) == 0;
  }
  flushHostText(fd);
  return writeWhole(fd, text, length);
}

inline void unlockStdout(void *) { funlockfile(stdout); }

// Writes a text to standard output, in one piece among those of other threads; false when a write fails.
inline bool putToStdout(const char *text, size_t length) {
  bool isOut;
  flockfile(stdout);
  pthread_cleanup_push(unlockStdout, nullptr);  // for a thread that is cancelled while it waits
  isOut = writeToStdout(text, length);
  pthread_cleanup_pop(1);
  return isOut;
}

}  // namespace kep
