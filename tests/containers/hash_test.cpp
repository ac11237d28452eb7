// hash_test.cpp: the hash table against the C++ library's, and what it prints.
#include <gtest/gtest.h>
#include <kep/ZuHash.h>
#include <kep/ZuMem.h>

#include <cstring>
#include <map>
#include <random>
#include <unordered_map>

#include "support/platform_double.hpp"

namespace {

uint32_t toOneBucket(const void *, uint32_t, uint32_t) { return 0; }
uint32_t farAboveTheCount(const void *key, uint32_t keySize, uint32_t bucketCount) {
  EXPECT_EQ(keySize, 5U);
  return 0xFFFF0000U / bucketCount * bucketCount + *static_cast<const uint8_t *>(key);
}

// Keys and values have odd sizes, so that entries lie anyhow.
class Table {
 public:
  explicit Table(uint32_t buckets, ZuHashFunc hash = nullptr, int32_t isStatic = 0)
      : table_(ZuHash_NewEx(5, 3, buckets, hash, isStatic)), isStatic_(isStatic) {
    static auto *kept = new std::vector<ZuHash *>;  // static tables are never released: held for the leak checker
    kept->push_back(table_);
  }
  ~Table() {
    for (char *entry : unlinked_) ZuMem_LocalFree(entry);
    ZuHash_Release(table_);
  }
  Table(const Table &) = delete;
  Table &operator=(const Table &) = delete;

  int32_t set(std::string key, std::string value) {
    key.resize(8), value.resize(3);
    return ZuHash_Set(table_, key.data(), value.data());
  }

  // The value as text, "-" without one.
  std::string get(std::string key) {
    char *value = find(key);
    return value ? std::string(value, 3).c_str() : "-";
  }

  // The entry is unlinked, not freed: its value can still be read, and it becomes ours.
  void remove(std::string key) {
    char *value = find(key);
    const std::string text = get(key);
    ZuHash_Delete(table_, key.data());
    if (!value || isStatic_) return;
    EXPECT_EQ(std::string(value, 3).c_str(), text);
    unlinked_.push_back(value - 5);
  }

  std::map<std::string, std::string> all() {
    std::map<std::string, std::string> entries;
    const auto note = [](const void *key, void *value, void *arg) {
      auto &map = *static_cast<std::map<std::string, std::string> *>(arg);
      map[std::string(static_cast<const char *>(key), 5).c_str()] = std::string(static_cast<char *>(value), 3).c_str();
      return 1;
    };
    EXPECT_EQ(ZuHash_Find(table_, note, &entries), nullptr);
    return entries;
  }

  std::string shown(void (*show)(ZuHash *)) {
    platform::takePrinted();
    show(table_);
    return platform::takePrinted();
  }

  ZuHash *const table_;

 private:
  char *find(std::string &key) {
    key.resize(8);
    void *value = &key;
    const int32_t found = ZuHash_Get(table_, key.data(), &value);
    EXPECT_EQ(found, value != nullptr);
    return static_cast<char *>(value);
  }

  int32_t isStatic_;
  std::vector<char *> unlinked_;
};

TEST(Hash, HoldsWhatAnUnorderedMapHolds) {
  std::mt19937 random(20240607);
  const auto run = [&random](uint32_t buckets, ZuHashFunc hash, bool isStatic) {
    Table table(buckets, hash, isStatic);
    std::unordered_map<std::string, std::string> model;
    for (int i = 0; i < 1500; ++i) {
      const std::string key = std::to_string(random() % 150), value = std::to_string(random() % 1000);
      const auto operation = random() % 8;
      if (operation < 3) {
        ASSERT_EQ(table.set(key, value), 1);
        model[key] = value;
      } else if (operation == 3) {
        table.remove(key);
        if (!isStatic) model.erase(key);
      }
      ASSERT_EQ(table.get(key), model.count(key) ? model[key] : "-") << buckets << " " << i;
    }
    EXPECT_EQ(table.all(), (std::map<std::string, std::string>(model.begin(), model.end())));
  };
  for (const uint32_t buckets : {1U, 7U, 300U}) {
    for (const ZuHashFunc hash : {ZuHashFunc{}, toOneBucket, farAboveTheCount})
      run(buckets, hash, 0), run(buckets, hash, 1);
  }
}

TEST(Hash, PrintsTheNewestEntryAndTheLengthOfEachBucket) {
  Table table(7, farAboveTheCount);
  for (const char *key : {"\x02older", "\x09newer", "\x01gone", "\x06last"}) table.set(key, key + 1);
  table.remove("\x01gone");
  table.set("\x02older", "xyz");  // in place: it does not become the newest
  EXPECT_EQ(table.shown(ZuHash_ShowDepth), "pos=1,length=0\npos=2,length=2\npos=6,length=1\n");
  const std::string dashes(41, '-');
  EXPECT_EQ(table.shown(ZuHash_Show),
            "key=>\nformat:*5S\n0001[5S]=>\n09 6E 65 77 65 \nresult=>\nformat:*3S\n0001[3S]=>\n6E 65 77 \n" + dashes +
                "\nkey=>\nformat:*5S\n0001[5S]=>\n06 6C 61 73 74 \nresult=>\nformat:*3S\n0001[3S]=>\n6C 61 73 \n" +
                dashes + "\n");
  const auto acceptAny = [](const void *, void *, void *) { return 0; };
  EXPECT_EQ(std::memcmp(ZuHash_Find(table.table_, acceptAny, nullptr), "\x09newe", 5), 0);

  Table standard(97);
  standard.set("abcde", "1");
  EXPECT_EQ(standard.shown(ZuHash_ShowDepth), "pos=87,length=1\n") << "by the key hash";
}

TEST(Hash, RefusesWhatItCannotHold) {
  for (const uint32_t buckets : {0x40000001U, 0xFFFFFFFFU}) EXPECT_EQ(ZuHash_New(1, 1, buckets, nullptr), nullptr);
  EXPECT_EQ(ZuHash_New(-1, 1, 1, nullptr), nullptr);
  EXPECT_EQ(ZuHash_New(1, -1, 1, nullptr), nullptr);
  ZuHash *huge = ZuHash_New(INT32_MAX, INT32_MAX, 1, toOneBucket);
  EXPECT_EQ(ZuHash_Set(huge, "k", "v"), 0);
  ZuHash_Release(huge);

  Table none(0);
  ASSERT_NE(none.table_, nullptr);
  EXPECT_EQ(none.set("a", "1"), 0);
  none.remove("a");
  EXPECT_TRUE(none.all().empty());
  EXPECT_EQ(none.shown(ZuHash_Show) + none.shown(ZuHash_ShowDepth), "");

  int mine = 0;
  void *out = &mine;
  EXPECT_EQ(ZuHash_Get(nullptr, "a", &out), 0);
  EXPECT_EQ(out, &mine) << "left alone without a table only";
  EXPECT_EQ(ZuHash_Set(nullptr, "a", "1"), 0);
  ZuHash_Delete(nullptr, "a"), ZuHash_Show(nullptr), ZuHash_ShowDepth(nullptr), ZuHash_Release(nullptr);
  EXPECT_EQ(ZuHash_Find(nullptr, nullptr, nullptr), nullptr);
}

}  // namespace
