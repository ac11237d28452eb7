#include "support/platform_double.hpp"

#include <kep/kep.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#endif

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <utility>

namespace {

// As platform.h asks: blocks begin 4 bytes short of maximal alignment. The size stands in front, for the books.
constexpr size_t kOffset = 2 * alignof(std::max_align_t) - 4;

std::mutex lock;  // tests serve from a thread
int countdown = platform::kNever;
bool failsOn = false;
int failures = 0;
uint8_t fill = 0xA5;
int blocks = 0;
int64_t bytes = 0;
std::vector<std::string> prints;
std::vector<uint32_t> delays;

// A host never has blocks this large; refused, so that tests of sizes near 4 GiB need no memory.
constexpr uint32_t kLargestBlock = 0x20000000;

bool allocationFails(uint32_t size) {
  if (size > kLargestBlock) return true;
  if (countdown < 0) return false;
  if (countdown > 0) return --countdown, false;
  if (!failsOn) countdown = platform::kNever;
  return true;
}

// ---- the library's lock

pthread_mutex_t libraryMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
thread_local int depth;

void lockLibrary() {
  pthread_mutex_lock(&libraryMutex);
  ++depth;
}

void unlockLibrary() {
  --depth;
  pthread_mutex_unlock(&libraryMutex);
}

[[gnu::constructor]] void giveLock() {
  if (platform::isLocking()) Kep_SetLock(lockLibrary, unlockLibrary);
}

}  // namespace

namespace platform {

bool isLocking() { return std::getenv("KEP_TEST_LOCK") != nullptr; }

void expectNoLockHeld(const char *call) {
  if (depth == 0) return;
  std::fprintf(stderr, "%s is called with the lock held\n", call);
  std::abort();
}

void failAllocation(int n, bool andAllAfter) {
  const std::lock_guard<std::mutex> guard(lock);
  countdown = n;
  failsOn = andAllAfter;
}

int failedAllocations() {
  const std::lock_guard<std::mutex> guard(lock);
  return failures;
}

void fillBlocksWith(uint8_t byte) { fill = byte; }

int liveBlocks() {
  const std::lock_guard<std::mutex> guard(lock);
  return blocks;
}

int64_t liveBytes() {
  const std::lock_guard<std::mutex> guard(lock);
  return bytes;
}

std::vector<std::string> takePrintCalls() {
  const std::lock_guard<std::mutex> guard(lock);
  return std::exchange(prints, {});
}

std::string takePrinted() {
  std::string all;
  for (const std::string &text : takePrintCalls()) all += text;
  return all;
}

std::vector<uint32_t> takeDelays() {
  const std::lock_guard<std::mutex> guard(lock);
  return std::exchange(delays, {});
}

}  // namespace platform

void *VRK_Malloc(uint32_t size) {
  const std::lock_guard<std::mutex> guard(lock);
  if (allocationFails(size)) return ++failures, nullptr;
  auto *memory = static_cast<char *>(std::malloc(size + kOffset));
  if (!memory) return nullptr;
  std::memcpy(memory, &size, sizeof size);
  std::memset(memory + kOffset, fill, size);
#ifdef VALGRIND_MAKE_MEM_UNDEFINED
  VALGRIND_MAKE_MEM_UNDEFINED(memory + kOffset, size);  // filled, but not by the library
#endif
  ++blocks;
  bytes += size;
  return memory + kOffset;
}

void VRK_Free(void *block) {
  const std::lock_guard<std::mutex> guard(lock);
  char *memory = static_cast<char *>(block) - kOffset;
  uint32_t size;
  std::memcpy(&size, memory, sizeof size);
  --blocks;
  bytes -= size;
  std::free(memory);
}

int VRK_RawPrint(const char *format, ...) {
  platform::expectNoLockHeld("VRK_RawPrint");
  char text[20000];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  const std::lock_guard<std::mutex> guard(lock);
  prints.emplace_back(text);
  return length;
}

void VRK_Delay(uint32_t ms) {
  platform::expectNoLockHeld("VRK_Delay");
  const std::lock_guard<std::mutex> guard(lock);
  delays.push_back(ms);
}

int PLM_snprintf(char *buffer, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(buffer, size, format, args);
  va_end(args);
  return length;
}

std::string heldBy(ZuBuf *buffer) {
  void *text = nullptr;
  ZuBuf_Get(buffer, 0, &text);
  return text ? std::string(static_cast<char *>(text), ZuBuf_Length(buffer)) : "";
}

std::string contentOf(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "none";
}

std::string bytesOf(const std::string &notation) {
  std::string out;
  for (size_t i = 0; i < notation.size(); ++i) {
    if (notation[i] == '\'') {
      for (++i; notation[i] != '\''; ++i) out += notation[i];
    } else if (notation[i] == 'T') {
      out += "MM/DD HH:MI:SS";
    } else if (notation[i] != ' ') {
      out += static_cast<char>(std::stoi(notation.substr(i++, 2), nullptr, 16));
    }
  }
  return out;
}

StdoutCapture::StdoutCapture() {
  std::fflush(stdout);
  file_ = memfd_create("stdout", 0);
  savedStdout_ = dup(STDOUT_FILENO);
  dup2(file_, STDOUT_FILENO);
}

StdoutCapture::~StdoutCapture() {
  restore();
  if (file_ >= 0) close(file_);
}

std::string StdoutCapture::take() {
  restore();
  std::string text;
  char part[4096];
  lseek(file_, 0, SEEK_SET);
  for (ssize_t n; (n = read(file_, part, sizeof part)) > 0;) text.append(part, static_cast<size_t>(n));
  close(std::exchange(file_, -1));
  return text;
}

void StdoutCapture::restore() {
  if (savedStdout_ < 0) return;
  std::fflush(stdout);
  dup2(savedStdout_, STDOUT_FILENO);
  close(savedStdout_);
  savedStdout_ = -1;
}
