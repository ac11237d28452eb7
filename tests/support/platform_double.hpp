// platform_double.hpp: a service layer for tests. It keeps what is printed, fails the allocation it is told to fail,
// counts live blocks, fills every block with a chosen byte, and never sleeps. With KEP_TEST_LOCK in the environment it
// gives the library a lock before anything else is called.
#pragma once

#include <kep/ZuBuf.h>

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

constexpr int kNever = -1;

// Whether the library has a lock.
bool isLocking();

// Ends the program when this thread is in a call of the library's that holds the lock: nobody may wait there.
void expectNoLockHeld(const char *call);

// Lets the n-th allocation from now fail (0: the next one), or, with `andAllAfter`, every one from there on.
void failAllocation(int n, bool andAllAfter = false);

// How many allocations have failed since the program began.
int failedAllocations();

// The byte that fills new blocks, so that a byte nobody wrote shows.
void fillBlocksWith(uint8_t byte);

// Blocks taken and not given back, and the bytes that were asked for in them.
int liveBlocks();
int64_t liveBytes();

// What VRK_RawPrint printed since the last call of this function, call by call and as one text.
std::vector<std::string> takePrintCalls();
std::string takePrinted();

// The milliseconds of the calls of VRK_Delay since the last call of this function.
std::vector<uint32_t> takeDelays();

}  // namespace platform

// Digits in pairs stand for bytes, 'text' for itself, T for a time that is masked.
std::string bytesOf(const std::string &notation);

// What a buffer of bytes holds.
std::string heldBy(ZuBuf *buffer);

// What is in a file, "none" if there is none.
std::string contentOf(const std::string &path);

// Catches what goes to standard output directly, descriptor and stdio alike, until it is taken or destroyed.
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  StdoutCapture(const StdoutCapture &) = delete;
  StdoutCapture &operator=(const StdoutCapture &) = delete;

  // Ends the capture and returns the text.
  std::string take();

 private:
  void restore();

  int file_;
  int savedStdout_;
};
