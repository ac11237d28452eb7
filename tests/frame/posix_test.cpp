// posix_test.cpp: the library on the service layer of a Linux host.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kep/kep.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <regex>

TEST(Posix, TextsArriveAtOnceAndInTheirOrder) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
  std::fflush(stdout);
  const int console = dup(STDOUT_FILENO);
  dup2(ends[1], STDOUT_FILENO);
  std::string text;
  const auto take = [&] {
    char part[4096];
    const ssize_t n = read(ends[0], part, sizeof part);
    text.append(part, n < 0 ? 0 : static_cast<size_t>(n)) += '|';
  };
  ZuPrint_Puts("first", 0), take();
  CollectClient_Start("nowhere", 9099), take();
  std::printf("the host's own, ");  // in stdio's buffer
  ZuPrint_ShowEx("third", 0), take();
  ZuInfo *store = ZuInfo_New(0);
  ZuLogger_Dump(store), take();
  const std::string value(600, 'v');
  ZuInfo_Write(store, "k", value.c_str()), ZuInfo_Write(store, "k", value.c_str()), take();  // grows
  ZuPrint_ShowEx(" fourth, 100%", 0), take();
  dup2(console, STDOUT_FILENO);
  for (const int descriptor : {console, ends[0], ends[1]}) close(descriptor);
  ZuInfo_Release(store);
  EXPECT_TRUE(
      std::regex_match(text, std::regex("first\n\\|connect error.\n\\|the host's own, third\\|logger info addr: "
                                        "0x[^|]*freesize: 1024\n\\|[^|]*\\| fourth, 100%\\|")))
      << text;
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
