// containers.cpp: each container beside what a C++ user would otherwise take, and the drawing of text tables by rows.
#include <kep/ZuBuf.h>
#include <kep/ZuHash.h>
#include <kep/ZuList.h>
#include <kep/ZuMem.h>
#include <kep/ZuSet.h>
#include <kep/ZuTable.h>

#include <cstring>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench.hpp"

namespace {

constexpr int32_t kCount = 1000;

void ignoreElement(void *) {}

// ---- list: push in front, find by a walk, pop from the front

int32_t isSame(void *element, const void *key) { return element != key; }

void listPushPop(benchmark::State &state) {
  ZuList *list = ZuList_New(0, ignoreElement);
  int value = 0;
  for (auto _ : state) {
    for (int32_t i = 0; i < kCount; ++i) ZuList_Push(list, &value);
    for (int32_t i = 0; i < kCount; ++i) benchmark::DoNotOptimize(ZuList_Popup(list));
  }
  ZuList_Release(list);
}
BENCHMARK(listPushPop);

void stdListPushPop(benchmark::State &state) {
  std::list<void *> list;
  int value = 0;
  for (auto _ : state) {
    for (int32_t i = 0; i < kCount; ++i) list.push_front(&value);
    for (int32_t i = 0; i < kCount; ++i) list.pop_front();
    benchmark::ClobberMemory();
  }
}
BENCHMARK(stdListPushPop);

void listFind(benchmark::State &state) {
  ZuList *list = ZuList_New(0, ignoreElement);
  static char values[kCount];
  for (char &value : values) ZuList_Push(list, &value);
  for (auto _ : state) benchmark::DoNotOptimize(ZuList_Find(list, isSame, &values[0]));
  ZuList_Release(list);
}
BENCHMARK(listFind);

void stdListFind(benchmark::State &state) {
  std::list<void *> list;
  static char values[kCount];
  for (char &value : values) list.push_front(&value);
  for (auto _ : state) {
    void *found = nullptr;
    for (void *element : list) {
      if (element == &values[0]) found = element;
    }
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(stdListFind);

// ---- hash table: 16-byte keys, 8-byte values, as many buckets as keys

struct Key {
  char text[16];
  bool operator==(const Key &other) const { return std::memcmp(text, other.text, sizeof text) == 0; }
};

struct KeyHash {
  size_t operator()(const Key &key) const {
    return std::hash<std::string_view>()(std::string_view(key.text, sizeof key.text));
  }
};

std::vector<Key> makeKeys() {
  std::vector<Key> keys(kCount);
  for (size_t i = 0; i < keys.size(); ++i) {
    std::string text = "key " + std::to_string(i);
    text.resize(sizeof keys[i].text);
    std::memcpy(keys[i].text, text.data(), text.size());
  }
  return keys;
}

void hashGet(benchmark::State &state) {
  const std::vector<Key> keys = makeKeys();
  ZuHash *table = ZuHash_New(sizeof(Key), 8, kCount, nullptr);
  for (const Key &key : keys) ZuHash_Set(table, &key, "8 bytes");
  for (auto _ : state) {
    void *value;
    for (const Key &key : keys) benchmark::DoNotOptimize(ZuHash_Get(table, &key, &value));
  }
  ZuHash_Release(table);
}
BENCHMARK(hashGet);

void stdHashGet(benchmark::State &state) {
  const std::vector<Key> keys = makeKeys();
  std::unordered_map<Key, uint64_t, KeyHash> table(kCount);
  for (const Key &key : keys) table[key] = 8;
  for (auto _ : state) {
    for (const Key &key : keys) benchmark::DoNotOptimize(table.find(key));
  }
}
BENCHMARK(stdHashGet);

// ---- set: every third index in, then all asked

void setUse(benchmark::State &state) {
  ZuSet *set = ZuSet_New(kCount);
  for (auto _ : state) {
    for (uint32_t i = 0; i < kCount; i += 3) ZuSet_Set(set, i, 1);
    for (uint32_t i = 0; i < kCount; ++i) benchmark::DoNotOptimize(ZuSet_Get(set, i));
  }
  ZuSet_Release(set);
}
BENCHMARK(setUse);

void stdBitsUse(benchmark::State &state) {
  std::vector<bool> set(kCount);
  for (auto _ : state) {
    for (size_t i = 0; i < kCount; i += 3) set[i] = true;
    benchmark::ClobberMemory();
    for (size_t i = 0; i < kCount; ++i) benchmark::DoNotOptimize(bool(set[i]));
  }
}
BENCHMARK(stdBitsUse);

// ---- byte buffer: short texts appended

void bufAppend(benchmark::State &state) {
  ZuBuf *buf = ZuBuf_New(1, 4096, 4096);
  for (auto _ : state) {
    for (int32_t i = 0; i < kCount; ++i) ZuBuf_Append(buf, "sixteen bytes ..", 16);
    ZuBuf_Clear(buf);
  }
  ZuBuf_Release(buf);
}
BENCHMARK(bufAppend);

void stdStringAppend(benchmark::State &state) {
  std::string text;
  for (auto _ : state) {
    for (int32_t i = 0; i < kCount; ++i) text.append("sixteen bytes ..", 16);
    benchmark::DoNotOptimize(text.data());
    std::memset(text.data(), 0, text.size());
    text.clear();
  }
}
BENCHMARK(stdStringAppend);

const Ratio ratios[] = {{"list: 1,000 pushed and popped / std::list", "listPushPop", "stdListPushPop"},
                        {"list: last of 1,000 found / std::list", "listFind", "stdListFind"},
                        {"hash table: 1,000 found / std::unordered_map", "hashGet", "stdHashGet"},
                        {"set: 333 set, 1,000 asked / std::vector<bool>", "setUse", "stdBitsUse"},
                        {"byte buffer: 1,000 texts / std::string", "bufAppend", "stdStringAppend"}};

// ---- text table: one drawing, by rows

void drawRows(benchmark::State &state, int32_t rows) {
  ZuTable *table = ZuTable_New();
  ZuTable_SetTitle(table, 0, "Name", 4, "%s", 'L');
  ZuTable_SetTitle(table, 1, "Count", 2, "%d", 'R');
  for (int32_t row = 0; row < rows; ++row) {
    ZuTable_Set(table, row, 0, "a name");
    ZuTable_Set(table, row, 1, &row);
  }
  ZuBuf *buf = ZuBuf_New(1, 1U << 20, 0);
  for (auto _ : state) {
    ZuTable_ShowToBuf(table, buf);
    ZuBuf_Clear(buf);
  }
  ZuBuf_Release(buf);
  ZuTable_Release(table);
}

void draw10(benchmark::State &state) { drawRows(state, 10); }
void draw1000(benchmark::State &state) { drawRows(state, 1000); }
void draw10000(benchmark::State &state) { drawRows(state, 10000); }
BENCHMARK(draw10);
BENCHMARK(draw1000);
BENCHMARK(draw10000)->Iterations(10);
const Ratio growth[] = {{"text table: 1,000 rows / 10 rows", "draw1000", "draw10"},
                        {"text table: 10,000 rows / 1,000 rows", "draw10000", "draw1000"}};

}  // namespace
