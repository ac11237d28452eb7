// mem_test.cpp: the accounts, the static pool, and the bounds of memory objects.
#include <gtest/gtest.h>
#include <kep/ZuMem.h>

#include <array>
#include <regex>

#include "support/platform_double.hpp"

namespace {

std::string report() {
  platform::takePrinted();
  ZuMem_Show();
  return platform::takePrinted();
}

constexpr char kLeft[] = ": left         = ", kChunks[] = ": times        = ", kPoolBlocks[] = ": malloc times = ";

// The number behind a label in the report, 0 without it. Ids are used by one test each.
uint32_t reported(const std::string &label) {
  const std::string text = report();
  const size_t at = text.find(label);
  return at == std::string::npos ? 0 : static_cast<uint32_t>(std::stoul(text.substr(at + label.size()), nullptr, 0));
}

// Blocks of the pool are never given back; kept here, so that the leak checker knows them.
char *take(int32_t id, uint32_t size) {
  static auto *taken = new std::vector<void *>;
  return static_cast<char *>(taken->emplace_back(ZuMem_Malloc_Static(id, size)));
}

}  // namespace

TEST(Memory, IsAccountedUnderTheLowBitsOfAnId) {
  void *blocks[] = {ZuMem_Malloc(7, 10), ZuMem_Malloc(263, 0), ZuMem_Malloc(-1, 996)};
  ZuMem_Free(6, ZuMem_Malloc(6, 1)), ZuMem_Free(6, nullptr);  // holds nothing now
  ZuMem_Free(31, ZuMem_Malloc(30, 10));                       // the id of a release is trusted
  EXPECT_TRUE(std::regex_match(report(), std::regex("   id        size    malloc    free\n-{37}\n    0  0x0[^\n]*\n"
                                                    "    7  0x00000012         2       0\n"
                                                    "   30  0x0000000e         1       0\n"
                                                    "   31  0xfffffff2         0       1\n[^]*"
                                                    "  255  0x000003e8         1       0\n\n"
                                                    "static memory : left         = 0x[0-9a-f]{8}\n"
                                                    "static memory : times        = [0-9]+\n"
                                                    "static memory : malloc times = [0-9]+\n")))
      << report();

  const std::string before = report();
  for (const uint32_t size : {0xFFFFFFFFU, 0xFFFFFFFDU, 0xFFFFFFFCU}) {  // wrap with their header or when rounded up
    EXPECT_TRUE(!ZuMem_Malloc(30, size) && !ZuMem_Malloc_Static(30, size)) << size;
  }
  platform::failAllocation(0, true);
  EXPECT_TRUE(!ZuMem_Malloc(30, 1) && !ZuMem_Malloc_Static(30, 0x80001) && !ZuMem_Malloc_Static(30, 0));
  platform::failAllocation(platform::kNever);
  EXPECT_EQ(report(), before) << "only what was given is counted";
  ZuMem_Free(7, blocks[0]), ZuMem_Free(7, blocks[1]), ZuMem_Free(255, blocks[2]);
}

TEST(StaticPool, CarvesRoundedBlocksSideBySideFromChunks) {
  const uint32_t chunks = reported(kChunks);
  while (reported(kChunks) == chunks) take(0, 0x80000);  // then half a chunk is left
  const uint32_t left = reported(kLeft), poolBlocks = reported(kPoolBlocks);
  const char *first = take(50, 5);
  EXPECT_EQ(take(50, 4) - first, 8);
  EXPECT_EQ(reported(kLeft), left - 12);
  EXPECT_EQ(reported("\n   50  "), 0U) << "the chunk is counted under the id that took it";
  take(51, 0x80000);  // more than is left: a new chunk, the rest given up
  take(52, 0x80001);  // more than the pool gives
  take(0, 0x40000);
  platform::failAllocation(0);
  take(60, 0x40004);  // there is no new chunk: a block of its own
  EXPECT_EQ(reported(kLeft), 0x40000U) << "only the pointer is dropped";
  EXPECT_EQ(reported(kChunks), chunks + 2);
  EXPECT_EQ(reported(kPoolBlocks), poolBlocks + 4);
  EXPECT_EQ(reported("\n   51  "), 0x100004U);
  EXPECT_EQ(reported("\n   52  "), 0x80008U);
  EXPECT_EQ(reported("\n   60  "), 0x40008U);
  take(0, 4);
  EXPECT_EQ(reported(kLeft), 0x100000U - 4) << "a new chunk, though the old rest had room";
  take(0, 0x80000 - 4), take(0, 0x80000);
  EXPECT_EQ(reported(kLeft), 0U) << "to its last byte";
}

TEST(BoundedObject, AccessorsNeverLeaveIt) {
  const std::string source = "abcdefghijklmnop";
  for (const auto &[offset, n, count] :
       {std::array{8U, 5U, 2U}, {0, 10, 10}, {10, 1, 0}, {3, 0, 0}, {9, UINT32_MAX, 1}, {UINT32_MAX, 1, 0}}) {
    SCOPED_TRACE(testing::Message() << offset << "+" << n);
    ZuMem *obj = ZuMem_New(10, 0);
    std::string expected(10, '.'), out(16, '#');
    ZuMem_memset(obj, 0, '.', 10);
    EXPECT_EQ(ZuMem_memcpy(obj, offset, source.data(), n), count);
    if (count) expected.replace(offset, count, source, 0, count);
    EXPECT_EQ(ZuMem_memcmp(obj, 0, expected.data(), 10), 0);
    EXPECT_EQ(ZuMem_memget(obj, offset, out.data(), n), count);
    EXPECT_EQ(out, source.substr(0, count) + std::string(16 - count, '#'));
    ZuMem_memset(obj, offset, '-', n);
    if (count) expected.replace(offset, count, count, '-');
    EXPECT_EQ(ZuMem_memcmp(obj, 0, expected.data(), 10), 0);
    ZuMem_Release(obj);
  }
  EXPECT_FALSE(ZuMem_memcpy(nullptr, 0, "", 1) || ZuMem_memget(nullptr, 0, nullptr, 1));
  ZuMem_memset(nullptr, 0, 0, 1), ZuMem_Release(nullptr);
  EXPECT_EQ(ZuMem_memcmp(nullptr, 0, "", 1), -1);
  EXPECT_TRUE(!ZuMem_Get(nullptr, 0) && !ZuMem_realloc(nullptr, 1) && !ZuMem_New(-8, 0));
}

TEST(BoundedObject, ResizingKeepsWhatFitsAndFreesTheOld) {
  ZuMem *fixed = ZuMem_New(3, 1);
  const int64_t before = platform::liveBytes();
  ZuMem *obj = ZuMem_New(4, 0);
  ZuMem_memcpy(obj, 0, "abcd", 4);
  EXPECT_EQ(ZuMem_realloc(obj, -1), nullptr);
  obj = ZuMem_realloc(obj, 8);  // still valid
  EXPECT_EQ(ZuMem_memcmp(obj, 0, "abcd", 4), 0);
  obj = ZuMem_realloc(obj, 2);  // all of the old would run over the new block
  EXPECT_TRUE(ZuMem_memcmp(obj, 0, "ab", 2) == 0 && ZuMem_Get(obj, 1) && !ZuMem_Get(obj, 2));
  EXPECT_EQ(ZuMem_memcmp(obj, 2, "", 0) + ZuMem_memcmp(obj, 0, nullptr, 0), -2);
  EXPECT_EQ(ZuMem_memcpy(obj, 0, nullptr, 1) + ZuMem_memget(obj, 0, nullptr, 1), 0U);
  ZuMem_Release(obj);
  EXPECT_TRUE(ZuMem_realloc(fixed, 100) == fixed && !ZuMem_Get(fixed, 3));
  ZuMem_Release(fixed);
  EXPECT_EQ(platform::liveBytes(), before);
}
