// What a store's model does not say: refusals, stores that a host has damaged, the texts of the trace.
#include <gtest/gtest.h>
#include <kep/ZuInfo.h>
#include <kep/ZuLogger.h>

#include <cstdlib>
#include <memory>
#include <regex>
#include <string>

#include "support/platform_double.hpp"

namespace {

using Store = std::unique_ptr<ZuInfo, decltype(&ZuInfo_Release)>;

Store makeStore(uint32_t limit) { return {ZuInfo_New(limit), ZuInfo_Release}; }

int put(const Store &store, const std::string &key, const std::string &value) {
  return ZuInfo_Append(store.get(), key.data(), static_cast<int32_t>(key.size()), value.data(),
                       static_cast<int32_t>(value.size()));
}

// What append, text, two parts and head answer to a small record.
std::string answers(const Store &store) {
  std::string text;
  for (const int result :
       {put(store, "k", "v"), ZuInfo_Write(store.get(), "k", "v"),
        ZuInfo_Append2Message(store.get(), "k", 1, "v", 1, "w", 1), ZuInfo_PackPre(store.get(), "k", 0, 0)}) {
    text += std::to_string(result) + " ";
  }
  return text;
}

TEST(Store, AnswersByTheFirstCheckThatFails) {
  ZuInfo_Ignore(nullptr, 1), ZuInfo_Clear(nullptr), ZuLogger_Dump(nullptr);
  EXPECT_EQ(ZuInfo_FreeSize_(nullptr, 1) + ZuInfo_GetFlag(nullptr, 2000), 0);
  EXPECT_EQ(answers({nullptr, ZuInfo_Release}), "-1 -1 0 0 ");
  const Store store = makeStore(0xFFFFFC01);
  EXPECT_EQ(store->limit, 0xFFFFFC00U) << "rounded as far as 32 bits go";
  ZuInfo_Ignore(store.get(), 5);
  store->writeOffset = 5000;
  EXPECT_EQ(answers(store), "0 0 1 0 ");
  ZuInfo_Ignore(store.get(), 0);
  EXPECT_EQ(put(store, "k", "v"), -1) << "write offset beyond the block";
  store->writeOffset = 0;
  store->freeSize = 1025;
  EXPECT_EQ(put(store, "k", "v"), -1) << "more free than the block has";
}

// One step in a block that is only said to be so large: being static it stays where it is when it grows, and what it
// really has is the oldest record, of 40 bytes.
TEST(Store, EvictsWhereNoBlockIsLarger) {
  constexpr int32_t kLargest = 0x7FFFFC00, kFree = 7;
  const struct {
    uint32_t limit;
    int32_t size, need, result, freed;
  } cases[] = {{0, kLargest, 40, 1, 33},
               {0, kLargest, 41, 2, 33},
               {0, kLargest - 1024, 1032, 2, 1024},
               {0, 0x60000000, 8, 1, 0x40000},
               {kLargest, 0x40000000, 8, 1, kLargest - 0x40000000},
               {0x80000000, kLargest, 8, 1, 33},
               {0xC0000000, 0x60000000, 8, 1, 0x40000},
               {0xC0000000, 0x60000400, 8, 1, kLargest - 0x60000400},  // straight to the limit, as far as that goes
               {0xC0000000, kLargest, kLargest + 1, 0, 0},
               {0xFFFFFC00, kLargest, 8, 1, 33}};
  for (const auto &c : cases) {
    const Store store = makeStore(c.limit);
    struct {
      int32_t size, isStatic;
      char oldest[40];
    } block = {c.size, 1, "\0\0\x25"};
    ZuMem_Release(std::exchange(store->block, reinterpret_cast<ZuMem *>(&block)));
    store->freeSize = kFree;
    store->writeOffset = static_cast<uint32_t>(c.size - kFree);
    StdoutCapture trace;
    const std::pair step{ZuInfo_FreeSize_(store.get(), c.need), store->freeSize - kFree};  // in this order
    trace.take();
    EXPECT_EQ(step, std::pair(c.result, c.freed)) << c.limit << ", a block of " << c.size << ", for " << c.need;
  }
}

TEST(Store, SaysHowItMakesRoom) {
  const Store store = makeStore(2000);
  StdoutCapture capture;
  for (const size_t size : {500U, 700U, 1200U}) put(store, "k", std::string(size - 4, 'v'));
  ZuLogger_Dump(store.get());
  const std::string said = std::regex_replace(capture.take(), std::regex("(memory addr: 0x)[0-9a-f]+"), "$1?");
  char begin[100];
  std::snprintf(begin, sizeof begin, "logger info addr: 0x%x\nmemory addr: 0x?\nmemory size: ",
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(store.get())));  // its low 32 bits
  const std::string middle = "\nfree addr:   500\nuse  addr:   0\nmaxsize: 2048\nfreesize: ";
  const std::string growth = std::string("size 700") + begin + "1024" + middle +
                             "524\nadd size 1024, new size 2048 freesize 1548\n" + begin + "2048" + middle +
                             "1548\nsize 1200size 1200";
  EXPECT_EQ(said, growth + begin + "2048\nfree addr:   1200\nuse  addr:   1200\nmaxsize: 2048\nfreesize: 0\n");
}

// A record at the start that claims to reach past the oldest, into what the walk has seen.
TEST(Store, EndsAWalkThatADamagedLengthLeadsBack) {
  ZuInfo *info = ZuInfo_New(1024);
  const std::string value(96, 'v');
  for (int i = 0; i < 14; ++i) ZuInfo_Append(info, "k", 1, value.data(), 96);
  auto *block = static_cast<uint8_t *>(ZuMem_Get(info->block, 0));
  block[2] = 696 >> 8, block[3] = 696 & 0xFF;
  const uint8_t *key, *text;
  uint8_t keyLength;
  uint16_t length;
  int records = 0;
  for (int32_t cursor = -1; ZuInfo_Get(info, nullptr, 0, &cursor, &key, &keyLength, &text, &length);) {
    ASSERT_LT(++records, 20);
  }
  ZuInfo_Release(info);
}

TEST(Store, RefusesNegativeLengthsAndNull) {
  const Store store = makeStore(1024);
  ZuInfo *info = store.get();
  for (const int result : {ZuInfo_Append(info, "k", -1, "v", 1), ZuInfo_Append(info, "k", 1, "v", -1),
                           ZuInfo_Append(info, "k", 1, nullptr, 1), ZuInfo_Append(info, nullptr, 1, "v", 1),
                           ZuInfo_Write(info, "k", nullptr), ZuInfo_Write(info, nullptr, "v")}) {
    EXPECT_EQ(result, -1);
  }
  EXPECT_EQ(ZuInfo_Append2Message(info, "k", -1, "v", 1, "w", 1) | ZuInfo_PackPre(info, "k", 1, -1) |
                ZuInfo_Append2Message(info, "k", 1, "v", -1, "w", 5) |
                ZuInfo_Append2Message(info, "k", 1, "v", 5, "w", -1),
            0);
  for (const int32_t length : {-5, 65525, 100000, INT32_MAX}) ZuInfo_AddInfo(info, 1, 1, "a", length, "b", 1, "", 0, 1);
  EXPECT_EQ(info->writeOffset, 0U);
}

}  // namespace
