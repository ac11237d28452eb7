// hash_test.cpp: the hash table against the C++ library's map, and what it prints.
#include <gtest/gtest.h>
#include <kep/ZuHash.h>
#include <kep/ZuMem.h>

#include <cstring>
#include <map>
#include <random>

#include "support/platform_double.hpp"

namespace {

int32_t keySize = 5, valueSize = 3;

uint32_t farAboveTheCount(const void *key, uint32_t size, uint32_t bucketCount) {
  EXPECT_EQ(static_cast<int32_t>(size), keySize);
  return 0xFFFF0000U / bucketCount * bucketCount + *static_cast<const uint8_t *>(key);
}

using Map = std::map<std::string, std::string>;

std::string bytesAt(const void *address, int32_t size) {
  return {static_cast<const char *>(address), static_cast<size_t>(size)};
}

int32_t note(const void *key, void *value, void *found) {
  static_cast<Map *>(found)->emplace(bytesAt(key, keySize), bytesAt(value, valueSize));
  return 1;
}

int32_t acceptAny(const void *, void *, void *) { return 0; }

// Deleted entries are unlinked, not freed: a host may still hold a value's address.
void freeEntryOf(void *value) { ZuMem_LocalFree(static_cast<char *>(value) - keySize); }

std::string shown(ZuHash *table, void (*show)(ZuHash *)) {
  platform::takePrinted();
  show(table);
  return platform::takePrinted();
}

// As many decimal digits.
std::string digitsOf(size_t number, int32_t count) {
  const std::string digits = std::to_string(number);
  return std::string(static_cast<size_t>(count) - digits.size(), '0') + digits;
}

// Sizes are odd, so that entries lie anyhow.
void compareWithAMap(uint32_t buckets, ZuHashFunc hash, bool isStatic) {
  std::mt19937 random(20240607);
  static auto *kept = new std::vector<ZuHash *>;  // static tables are never released: held for the leak checker
  ZuHash *table = kept->emplace_back(ZuHash_NewEx(keySize, valueSize, buckets, hash, isStatic));
  Map model, found;
  for (int i = 0; i < 1500; ++i) {
    const size_t number = random() % 150;
    const std::string key = digitsOf(number % 10, 1) + digitsOf(number, keySize - 1);  // the first tells the bucket
    const std::string text = digitsOf(random() % 1000, valueSize);
    const std::string readable = key + "000";  // by the hash, up to a whole word
    const auto operation = random() % 8;
    void *value = nullptr;
    if (operation < 3) {
      ASSERT_EQ(ZuHash_Set(table, readable.data(), text.data()), 1);
      model[key] = text;
    } else if (operation == 3) {
      ZuHash_Get(table, readable.data(), &value);
      ZuHash_Delete(table, readable.data());
      if (value && !isStatic) freeEntryOf(value), model.erase(key);
    }
    value = table;
    ASSERT_EQ(ZuHash_Get(table, readable.data(), &value), model.count(key)) << buckets << " " << i;
    ASSERT_EQ(value ? bytesAt(value, valueSize) : "", model.count(key) ? model[key] : "");
  }
  EXPECT_EQ(ZuHash_Find(table, note, &found), nullptr);
  EXPECT_EQ(found, model);
  ZuHash_Release(table);
}

TEST(Hash, HoldsWhatAMapHolds) {
  // Keys differ in the last bytes: of 9 in a word's and in the one behind it.
  for (const auto &[key, value] : {std::pair(9, 8), std::pair(5, 3)}) {
    keySize = key, valueSize = value;
    for (const uint32_t buckets : {1U, 7U, 300U}) {
      compareWithAMap(buckets, nullptr, false), compareWithAMap(buckets, nullptr, true);
      compareWithAMap(buckets, farAboveTheCount, false), compareWithAMap(buckets, farAboveTheCount, true);
    }
  }
}

TEST(Hash, PrintsTheNewestEntryAndTheLengthOfEachBucket) {
  ZuHash *table = ZuHash_New(5, 3, 7, farAboveTheCount), *standard = ZuHash_New(5, 3, 97, nullptr);
  for (const char *key : {"\x02older", "\x09newer", "\x01gone", "\x07last"}) ZuHash_Set(table, key, key + 1);
  void *gone;
  ASSERT_EQ(ZuHash_Get(table, "\x01gone", &gone), 1);
  ZuHash_Delete(table, "\x01gone");
  freeEntryOf(gone);
  ZuHash_Set(table, "\x02older", "xyz");  // in place: it does not become the newest
  EXPECT_EQ(shown(table, ZuHash_ShowDepth), "pos=0,length=1\npos=1,length=0\npos=2,length=2\n");
  const std::string end = std::string(41, '-') + "\n";
  EXPECT_EQ(shown(table, ZuHash_Show),
            "key=>\nformat:*5S\n0001[5S]=>\n07 6C 61 73 74 \nresult=>\nformat:*3S\n0001[3S]=>\n6C 61 73 \n" + end +
                "key=>\nformat:*5S\n0001[5S]=>\n09 6E 65 77 65 \nresult=>\nformat:*3S\n0001[3S]=>\n6E 65 77 \n" + end);
  EXPECT_EQ(std::memcmp(ZuHash_Find(table, acceptAny, nullptr), "\x07last", 5), 0);
  ZuHash_Set(standard, "abcde\0\0", "1\0");
  EXPECT_EQ(shown(standard, ZuHash_ShowDepth), "pos=87,length=1\n") << "by the key hash";
  ZuHash_Release(table), ZuHash_Release(standard);
}

TEST(Hash, RefusesWhatItCannotHold) {
  for (const uint32_t buckets : {0x40000001U, 0xFFFFFFFFU}) EXPECT_EQ(ZuHash_New(1, 1, buckets, nullptr), nullptr);
  EXPECT_TRUE(!ZuHash_New(-1, 1, 1, nullptr) && !ZuHash_New(1, -1, 1, nullptr));
  ZuHash *huge = ZuHash_New(INT32_MAX, INT32_MAX, 1, [](const void *, uint32_t, uint32_t) { return 0U; });
  EXPECT_EQ(ZuHash_Set(huge, "k", "v"), 0);
  ZuHash_Release(huge);
  for (ZuHash *table : {ZuHash_New(5, 3, 0, nullptr), static_cast<ZuHash *>(nullptr)}) {
    EXPECT_EQ(ZuHash_Set(table, "a", "1"), 0);
    ZuHash_Delete(table, "a");
    void *out = &out;
    EXPECT_EQ(ZuHash_Get(table, "a", &out), 0);
    EXPECT_EQ(out, table ? nullptr : &out) << "left alone without a table only";
    EXPECT_EQ(ZuHash_Find(table, note, nullptr), nullptr);
    EXPECT_EQ(shown(table, ZuHash_Show) + shown(table, ZuHash_ShowDepth), "");
    ZuHash_Release(table);
  }
}

}  // namespace
