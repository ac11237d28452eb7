// mem_test.cpp: the accounts, the static pool, and the bounds of memory objects.
#include <gtest/gtest.h>
#include <kep/ZuMem.h>

#include <cstdio>
#include <map>
#include <sstream>

#include "support/platform_double.hpp"

namespace {

// The printed report, line by line and taken apart. Accounts are only looked at under ids of one test each.
struct Report {
  std::vector<std::string> lines;
  std::map<int, uint32_t> bytes;
  uint32_t left = 0;
  int chunks = 0, poolBlocks = 0;

  Report() {
    platform::takePrinted();
    ZuMem_Show();
    std::istringstream text(platform::takePrinted());
    for (std::string line; std::getline(text, line); lines.push_back(line)) {
      int id;
      uint32_t size;
      if (std::sscanf(line.c_str(), "%d 0x%x", &id, &size) == 2) bytes[id] = size;
      std::sscanf(line.c_str(), "static memory : left         = 0x%8x", &left);
      std::sscanf(line.c_str(), "static memory : times        = %d", &chunks);
      std::sscanf(line.c_str(), "static memory : malloc times = %d", &poolBlocks);
    }
  }
};

// Blocks of the pool are never given back; kept here, so that the leak checker knows them.
char *take(int32_t id, uint32_t size) {
  static auto *taken = new std::vector<void *>;
  taken->push_back(ZuMem_Malloc_Static(id, size));
  return static_cast<char *>(taken->back());
}

// Leaves exactly half a chunk in the pool, however much of it was used before.
void takeFreshChunk() {
  for (const int before = Report().chunks; Report().chunks == before;) take(0, 0x80000);
}

}  // namespace

TEST(Memory, ReportShowsEveryIdThatHoldsBytes) {
  const Report before;  // the first one makes the shared print object
  ASSERT_EQ(before.lines.at(2).substr(0, 7), "    0  ") << "and shows its block";
  void *ten = ZuMem_Malloc(7, 10);
  void *none = ZuMem_Malloc(263, 0);   // counted under 7 as well
  void *many = ZuMem_Malloc(-1, 996);  // under 255
  ZuMem_Free(6, ZuMem_Malloc(6, 1));   // holds nothing now
  const Report report;

  std::vector<std::string> expected = before.lines;
  expected[0] = "   id        size    malloc    free";
  expected[1] = "-------------------------------------";
  auto position = expected.begin() + 2;
  while (!position->empty() && std::atoi(position->c_str()) < 7) ++position;
  expected.insert(position, "    7  0x00000012         2       0");
  expected.insert(expected.end() - 4, "  255  0x000003e8         1       0");
  EXPECT_EQ(report.lines, expected);
  uint32_t sum = 0;
  for (const auto &entry : report.bytes) sum += entry.second;
  EXPECT_EQ(sum, platform::liveBytes());
  ZuMem_Free(7, ten), ZuMem_Free(7, none), ZuMem_Free(255, many);
}

TEST(Memory, OnlyWhatWasGivenIsCountedAndTheIdOfAReleaseIsTrusted) {
  const Report before;
  for (const uint32_t size : {0xFFFFFFFFU, 0xFFFFFFFDU, 0xFFFFFFFCU}) {  // wrap with their header or when rounded up
    EXPECT_TRUE(!ZuMem_Malloc(30, size) && !ZuMem_Malloc_Static(30, size)) << size;
  }
  platform::failAllocation(0, true);
  EXPECT_TRUE(!ZuMem_Malloc(30, 1) && !ZuMem_Malloc_Static(30, 0x80001) && !ZuMem_Malloc_Static(30, 0));
  platform::failAllocation(platform::kNever);
  ZuMem_Free(30, nullptr);
  EXPECT_EQ(Report().lines, before.lines);

  ZuMem_Free(31, ZuMem_Malloc(30, 10));
  EXPECT_EQ(Report().bytes[30], 14U);
  EXPECT_EQ(Report().bytes[31], 0xFFFFFFF2U);
  ZuMem_Free(30, ZuMem_Malloc(31, 10));
}

TEST(StaticPool, CarvesRoundedBlocksSideBySide) {
  takeFreshChunk();
  const Report before;
  const char *first = take(50, 5);
  EXPECT_EQ(take(50, 4) - first, 8);
  Report report;
  EXPECT_EQ(report.left, before.left - 12);
  EXPECT_EQ(report.bytes.count(50), 0U) << "the chunk is counted under the id that took it";
  take(51, 0x80000);  // more than is left: a new chunk, the rest given up
  take(52, 0x80001);  // more than the pool gives
  report = Report();
  EXPECT_EQ(report.left, 0x80000U);
  EXPECT_EQ(report.bytes[51], 0x100004U);
  EXPECT_EQ(report.bytes[52], 0x80008U);
  take(0, 0x80000);  // the pool to its last byte
  report = Report();
  EXPECT_EQ(report.left, 0U);
  EXPECT_EQ(report.chunks, before.chunks + 1);
  EXPECT_EQ(report.poolBlocks, before.poolBlocks + 4);
}

TEST(StaticPool, FailedChunkGivesUpTheRestAndTakesABlockOfItsOwn) {
  takeFreshChunk();
  take(0, 0x40000);  // a quarter is left
  const Report before;
  platform::failAllocation(0);
  take(60, 0x40004);
  Report report;
  EXPECT_EQ(report.bytes[60], 0x40008U);
  EXPECT_EQ(report.left, before.left) << "only the pointer is dropped";
  EXPECT_EQ(report.poolBlocks, before.poolBlocks);
  take(0, 4);
  EXPECT_EQ(Report().left, 0x100000U - 4) << "a new chunk, though the old rest had room";
}

TEST(BoundedObject, AccessorsNeverLeaveIt) {
  const struct {
    uint32_t offset, n, expected;
  } cases[] = {{8, 5, 2}, {0, 10, 10}, {0, 9, 9}, {10, 1, 0}, {3, 0, 0}, {9, UINT32_MAX, 1}, {UINT32_MAX, 1, 0}};
  ZuMem *obj = ZuMem_New(10, 0);
  const std::string source = "abcdefghijklmnop";
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.offset << "+" << c.n);
    const size_t at = c.expected ? c.offset : 0;
    ZuMem_memset(obj, 0, '.', 10);
    EXPECT_EQ(ZuMem_memcpy(obj, c.offset, source.data(), c.n), c.expected);
    std::string expected = std::string(10, '.').replace(at, c.expected, source, 0, c.expected);
    EXPECT_EQ(ZuMem_memcmp(obj, 0, expected.data(), 10), 0);
    std::string out(16, '#');
    EXPECT_EQ(ZuMem_memget(obj, c.offset, out.data(), c.n), c.expected);
    EXPECT_EQ(out, source.substr(0, c.expected) + std::string(16 - c.expected, '#'));
    ZuMem_memset(obj, c.offset, '-', c.n);
    EXPECT_EQ(ZuMem_memcmp(obj, 0, expected.replace(at, c.expected, c.expected, '-').data(), 10), 0);
  }
  EXPECT_EQ(ZuMem_memcmp(obj, 10, "", 0), -1);
  EXPECT_TRUE(ZuMem_Get(obj, 9) && !ZuMem_Get(obj, 10));
  ZuMem_Release(obj);

  char byte;
  ZuMem_Release(nullptr);
  ZuMem_memset(nullptr, 0, 0, 1);
  EXPECT_TRUE(!ZuMem_Get(nullptr, 0) && !ZuMem_realloc(nullptr, 1) && !ZuMem_New(-8, 0));
  EXPECT_EQ(ZuMem_memcpy(nullptr, 0, "", 1) + ZuMem_memget(nullptr, 0, &byte, 1), 0U);
  EXPECT_EQ(ZuMem_memcmp(nullptr, 0, "", 1), -1);
}

TEST(BoundedObject, ResizingKeepsWhatFitsAndFreesTheOld) {
  const int64_t before = platform::liveBytes();
  ZuMem *obj = ZuMem_New(4, 0);
  ZuMem_memcpy(obj, 0, "abcd", 4);
  EXPECT_EQ(ZuMem_realloc(obj, -1), nullptr);
  obj = ZuMem_realloc(obj, 8);  // still valid
  EXPECT_EQ(ZuMem_memcmp(obj, 0, "abcd", 4), 0);
  obj = ZuMem_realloc(obj, 2);  // all of the old would run over the new block
  EXPECT_EQ(ZuMem_memcmp(obj, 0, "ab", 2), 0);
  EXPECT_EQ(ZuMem_Get(obj, 2), nullptr);
  ZuMem_Release(obj);
  EXPECT_EQ(platform::liveBytes(), before);

  ZuMem *fixed = ZuMem_New(3, 1);
  EXPECT_EQ(ZuMem_realloc(fixed, 100), fixed);
  EXPECT_EQ(ZuMem_Get(fixed, 3), nullptr);
  const Report report;
  ZuMem_Release(fixed);
  EXPECT_EQ(Report().lines, report.lines);
}
