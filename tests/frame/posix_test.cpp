// posix_test.cpp: the library on the service layer of a Linux host.
#include <gtest/gtest.h>
#include <kep/kep.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

// What arrives when `speak` runs in a child whose standard output is a pipe. The child ends without flushing: a text
// that is held back never arrives.
template <typename Speak>
std::string textThroughPipe(Speak speak) {
  int ends[2];
  if (pipe(ends) != 0) return "no pipe";
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]), close(ends[1]);
    speak();
    _exit(0);
  }
  close(ends[1]);
  std::string text;
  char part[512];
  for (ssize_t n; (n = read(ends[0], part, sizeof part)) > 0;) text.append(part, static_cast<size_t>(n));
  close(ends[0]);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  return text;
}

}  // namespace

TEST(Posix, DirectTextsKeepTheirPlaceAmongPrintedLines) {
  const std::string text = textThroughPipe([] {
    ZuPrint_Puts("first", 0);
    CollectClient_Start("nowhere", 9099);
    ZuPrint_Puts("second", 0);
    std::printf("the host's own, ");  // in stdio's buffer
    ZuPrint_ShowEx("third", 0);
    ZuInfo *store = ZuInfo_New(0);
    ZuLogger_Dump(store);
    ZuPrint_ShowEx(" fourth", 0);
    const std::string value(600, 'v');
    ZuInfo_Write(store, "k", value.c_str());
    ZuInfo_Write(store, "k", value.c_str());  // grows, and tells so where the build keeps the trace
    ZuPrint_Puts(" fifth, 100%", 0);
    CollectClient_Start("nowhere", 9099);  // must not wait for a next line either
  });
  size_t at = 0;
  for (const char *part : {"first\nconnect error.\nsecond\nthe host's own, thirdlogger info addr: 0x",
                           "freesize: 1024\n fourth", " fifth, 100%\nconnect error.\n"}) {
    const size_t found = text.find(part, at);
    ASSERT_NE(found, std::string::npos) << part << "\n-- is missing in --\n" << text;
    at = found + std::strlen(part);
  }
  EXPECT_EQ(at, text.size()) << text;
}

TEST(Posix, BlocksAreMaximallyAlignedBehindTheirHeader) {
  for (uint32_t size = 0; size < 200; ++size) {
    void *block = VRK_Malloc(size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ((reinterpret_cast<uintptr_t>(block) + 4) % alignof(std::max_align_t), 0U) << size;
    std::memset(block, 0, size);
    VRK_Free(block);
  }
  VRK_Free(nullptr);
  if (sizeof(void *) > 4) return;
  for (uint32_t size = UINT32_MAX - 32; size != 0; ++size) EXPECT_EQ(VRK_Malloc(size), nullptr) << "wraps: " << size;
}
