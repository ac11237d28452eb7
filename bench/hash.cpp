// hash.cpp: hash tables of 16-byte keys and 8-byte values.
#include <kep/ZuHash.h>

#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench.hpp"

namespace {

constexpr int32_t kCount = 1000;

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

// ---- get, one key a bucket

void kepGet(Run &run) {
  const std::vector<Key> keys = makeKeys();
  ZuHash *table = ZuHash_New(sizeof(Key), 8, kCount, nullptr);
  for (const Key &key : keys) ZuHash_Set(table, &key, "8 bytes");
  void *value;
  run.time([&] {
    for (const Key &key : keys) keep(ZuHash_Get(table, &key, &value));
  });
  ZuHash_Release(table);
}

void stdGet(Run &run) {
  const std::vector<Key> keys = makeKeys();
  std::unordered_map<Key, uint64_t, KeyHash> table(kCount);
  for (const Key &key : keys) table[key] = 8;
  run.time([&] {
    for (const Key &key : keys) keep(table.find(key));
  });
}

const Row get("hash table get, 1 key a bucket", kCount, kepGet, nullptr, {1.25, 6.2});
const Peer getStd(get, "unordered_map", stdGet);

}  // namespace
