// hash.cpp: the key hash, and hash tables of 16-byte keys and 8-byte values, beside an array of chains by hand.
#include <arpa/inet.h>
#include <kep/ZuHash.h>
#include <kep/ZuMD5.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#ifdef KEP_BENCH_HAVE_GLIB
#include <glib.h>
#endif

#include "bench.hpp"

namespace {

constexpr uint32_t kCount = 1000;

struct Key {
  char text[16];
  bool operator==(const Key &other) const { return std::memcmp(text, other.text, sizeof text) == 0; }
};

std::vector<Key> makeKeys(const char *name) {
  std::vector<Key> made(kCount);
  for (size_t i = 0; i < made.size(); ++i) {
    std::string text = name + std::to_string(i);
    text.resize(sizeof made[i].text);
    std::memcpy(made[i].text, text.data(), text.size());
  }
  return made;
}

std::vector<Key> shuffled(std::vector<Key> some) {
  std::shuffle(some.begin(), some.end(), std::mt19937(1));
  return some;
}

// Asked in another order than stored: nobody meets his keys in the order of their memory.
const std::vector<Key> stored = makeKeys("key "), keys = shuffled(stored), missing = makeKeys("none ");
uint64_t value = 8;

// ---- the key hash

uint32_t rotate(uint32_t word, int bits) { return word << bits | word >> (32 - bits); }
uint32_t f(uint32_t x, uint32_t y, uint32_t z) { return (x & y) | (~x & z); }
uint32_t g(uint32_t x, uint32_t y, uint32_t z) { return (x & z) | (y & ~z); }
uint32_t h(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }
uint32_t i(uint32_t x, uint32_t y, uint32_t z) { return y ^ (x | ~z); }

CALLED uint32_t hashPlainly(const void *data, uint32_t size, uint32_t modulus) {
  uint32_t w[10] = {};
  for (uint32_t at = 0; at < 10 && at * 4 < size; ++at) {
    std::memcpy(&w[at], static_cast<const char *>(data) + at * 4, 4);
    w[at] = ntohl(w[at]);
  }
  constexpr uint32_t kA = 0x67452301, kB = 0xEFCDAB89, kC = 0x98BADCFE, kD = 0x10325476;
  uint32_t a = kA, b = kB, c = kC, d = kD;
  // clang-format off
#define STEP(mix, p, q, r, s, word, bits, sine) p = q + rotate(p + mix(q, r, s) + w[word] + sine, bits)
  STEP(f, a, b, c, d, 0, 7, 0xD76AA478); STEP(f, d, a, b, c, 1, 12, 0xE8C7B756);
  STEP(f, c, d, a, b, 2, 17, 0x242070DB); STEP(f, b, c, d, a, 3, 22, 0xC1BDCEEE);
  STEP(f, a, b, c, d, 4, 7, 0xF57C0FAF); STEP(f, d, a, b, c, 5, 12, 0x4787C62A);
  STEP(f, c, d, a, b, 6, 17, 0xA8304613); STEP(f, b, c, d, a, 7, 22, 0xFD469501);
  STEP(f, a, b, c, d, 8, 7, 0x698098D8); STEP(f, d, a, b, c, 9, 12, 0x8B44F7AF);
  STEP(g, a, b, c, d, 1, 5, 0xF61E2562); STEP(g, d, a, b, c, 4, 9, 0xC040B340);
  STEP(g, c, d, a, b, 0, 14, 0x265E5A51); STEP(g, b, c, d, a, 5, 20, 0xE9B6C7AA);
  STEP(g, a, b, c, d, 7, 5, 0xD62F105D); STEP(g, d, a, b, c, 2, 9, 0x02441453);
  STEP(g, c, d, a, b, 6, 14, 0xD8A1E681); STEP(g, b, c, d, a, 8, 20, 0xE7D3FBC8);
  STEP(g, a, b, c, d, 9, 5, 0x21E1CDE6); STEP(g, c, d, a, b, 3, 14, 0xC33707D6);
  STEP(h, a, b, c, d, 5, 4, 0xFFFA3942); STEP(h, d, a, b, c, 6, 11, 0x8771F681);
  STEP(h, c, d, a, b, 2, 16, 0x6D9D6122); STEP(h, b, c, d, a, 4, 23, 0xFDE5380C);
  STEP(h, a, b, c, d, 7, 4, 0xA4BEEA44); STEP(h, d, a, b, c, 8, 11, 0x4BDECFA9);
  STEP(h, c, d, a, b, 1, 16, 0xF6BB4B60); STEP(h, b, c, d, a, 9, 23, 0xBEBFBC70);
  STEP(h, a, b, c, d, 0, 4, 0x289B7EC6); STEP(h, d, a, b, c, 3, 11, 0xEAA127FA);
  STEP(i, a, b, c, d, 9, 6, 0xF4292244); STEP(i, d, a, b, c, 1, 10, 0x432AFF97);
  STEP(i, c, d, a, b, 4, 15, 0xAB9423A7); STEP(i, b, c, d, a, 5, 21, 0xFC93A039);
  STEP(i, a, b, c, d, 2, 6, 0x655B59C3); STEP(i, d, a, b, c, 3, 10, 0x8F0CCC92);
  STEP(i, c, d, a, b, 0, 15, 0xFFEFF47D); STEP(i, b, c, d, a, 6, 21, 0x85845DD1);
  STEP(i, a, b, c, d, 8, 6, 0x6FA87E4F); STEP(i, d, a, b, c, 7, 10, 0xFE2CE6E0);
#undef STEP
  // clang-format on
  return (kA + a + kB + b + kC + c + kD + d) % modulus;
}

template <uint32_t (*kHash)(const void *data, uint32_t size, uint32_t modulus)>
void hashKeys(Run &run) {
  for (const Key &key : keys) {
    if (kHash(&key, sizeof key, 1009) != ZuMD5_Hash(&key, sizeof key, 1009)) std::abort();
  }
  run.time([] {
    for (const Key &key : keys) keep(kHash(&key, sizeof key, 1009));
  });
}

const Row keyHash("key hash of 16 bytes", kCount, hashKeys<ZuMD5_Hash>, hashKeys<hashPlainly>, {1.05});

// A host's own: FNV-1a. It leaves the bucket to the table; plain code and peers use it as well.
CALLED uint32_t ownHash(const void *data, uint32_t size, uint32_t) {
  uint32_t hash = 2166136261;
  for (uint32_t at = 0; at < size; ++at) hash = (hash ^ static_cast<const uint8_t *>(data)[at]) * 16777619;
  return hash;
}

// ---- tables by their least common interface

struct KepTable {
  KepTable(uint32_t buckets, bool isOwn) : table(ZuHash_New(sizeof(Key), 8, buckets, isOwn ? ownHash : nullptr)) {}
  ~KepTable() { ZuHash_Release(table); }
  KepTable(const KepTable &) = delete;

  void set(const Key &key) { keep(ZuHash_Set(table, &key, &value)); }
  void get(const Key &key) {
    void *found;
    keep(ZuHash_Get(table, &key, &found));
    keep(found);
  }

  ZuHash *table;
};

class PlainTable {
 public:
  PlainTable(uint32_t buckets, bool isOwn) : buckets_(buckets), isOwn_(isOwn) {}
  ~PlainTable() {
    for (Node *node : buckets_) {
      while (node) std::free(std::exchange(node, node->next));
    }
  }
  PlainTable(const PlainTable &) = delete;

  void set(const Key &key) { keep(setPlainly(&key, &value)); }
  void get(const Key &key) {
    void *found;
    keep(getPlainly(&key, &found));
    keep(found);
  }

 private:
  struct Node {
    Node *next;
    char key[sizeof(Key)];
    char value[8];
  };

  Node **bucketOf(const void *key) {
    const auto count = static_cast<uint32_t>(buckets_.size());
    return &buckets_[isOwn_ ? ownHash(key, sizeof(Key), count) % count : hashPlainly(key, sizeof(Key), count)];
  }

  static Node *find(Node *node, const void *key) {
    while (node && std::memcmp(node->key, key, sizeof node->key) != 0) node = node->next;
    return node;
  }

  CALLED bool getPlainly(const void *key, void **out) {
    Node *node = find(*bucketOf(key), key);
    *out = node ? node->value : nullptr;
    return node != nullptr;
  }

  CALLED bool setPlainly(const void *key, const void *newValue) {
    Node **bucket = bucketOf(key);
    Node *node = find(*bucket, key);
    if (!node) {
      node = static_cast<Node *>(std::malloc(sizeof *node));
      if (!node) return false;
      std::memcpy(node->key, key, sizeof node->key);
      node->next = *bucket;
      *bucket = node;
    }
    std::memcpy(node->value, newValue, sizeof node->value);
    return true;
  }

  std::vector<Node *> buckets_;
  bool isOwn_;
};

template <bool kIsOwn>
struct KeyHash {
  size_t operator()(const Key &key) const {
    return kIsOwn ? ownHash(&key, sizeof key, 0) : std::hash<std::string_view>()({key.text, sizeof key.text});
  }
};

template <bool kIsOwn>
struct StdTable {
  StdTable(uint32_t buckets, bool) : table(buckets) {}

  void set(const Key &key) { table[key] = value; }
  void get(const Key &key) { keep(table.find(key)); }

  std::unordered_map<Key, uint64_t, KeyHash<kIsOwn>> table;
};

// ---- what is done with them

template <typename Table, uint32_t kBuckets, bool kIsOwn = false>
void getAll(Run &run) {
  Table table(kBuckets, kIsOwn);
  for (const Key &key : stored) table.set(key);
  run.time([&] {
    for (const Key &key : keys) table.get(key);
  });
}

template <typename Table, uint32_t kBuckets, bool kIsOwn = false>
void getNone(Run &run) {
  Table table(kBuckets, kIsOwn);
  for (const Key &key : stored) table.set(key);
  run.time([&] {
    for (const Key &key : missing) table.get(key);
  });
}

template <typename Table, uint32_t kBuckets, bool kIsOwn = false>
void setAll(Run &run) {
  Table table(kBuckets, kIsOwn);
  for (const Key &key : stored) table.set(key);
  run.time([&] {
    for (const Key &key : keys) table.set(key);
  });
}

template <typename Table, uint32_t kBuckets, bool kIsOwn = false>
void build(Run &run) {
  std::optional<Table> table;
  run.timeAfter([&] { table.reset(); },
                [&] {
                  table.emplace(kBuckets, kIsOwn);
                  for (const Key &key : keys) table->set(key);
                });
}

const Row get1("hash table get, 1 key a bucket", kCount, getAll<KepTable, kCount>, getAll<PlainTable, kCount>,
               {1.25, 6.2});
const Row miss1("hash table miss, 1 key a bucket", kCount, getNone<KepTable, kCount>, getNone<PlainTable, kCount>,
                {1.25, 6.2});
const Row set1("hash table set, 1 key a bucket", kCount, setAll<KepTable, kCount>, setAll<PlainTable, kCount>,
               {1.25, 6.2});
const Row get8("hash table get, 8 keys a bucket", kCount, getAll<KepTable, kCount / 8>, getAll<PlainTable, kCount / 8>,
               {1.3, 6.0});
const Row miss8("hash table miss, 8 keys a bucket", kCount, getNone<KepTable, kCount / 8>,
                getNone<PlainTable, kCount / 8>, {1.3, 6.0});
const Row set8("hash table set, 8 keys a bucket", kCount, setAll<KepTable, kCount / 8>, setAll<PlainTable, kCount / 8>,
               {1.3, 6.0});
const Row getOwn("hash table get, host's own hash, 1 key a bucket", kCount, getAll<KepTable, kCount, true>,
                 getAll<PlainTable, kCount, true>, {2.0, 1.6});
const Row build1("hash table built, 1 key a bucket", kCount, build<KepTable, kCount>, build<PlainTable, kCount>,
                 {1.6, 3.4});
const Row build8("hash table built, 8 keys a bucket", kCount, build<KepTable, kCount / 8>,
                 build<PlainTable, kCount / 8>, {1.6, 3.4});

const Peer getStd(get1, "unordered_map", getAll<StdTable<false>, kCount>);
const Peer missStd(miss1, "unordered_map", getNone<StdTable<false>, kCount>);
const Peer setStd(set1, "unordered_map", setAll<StdTable<false>, kCount>);
const Peer getOwnStd(getOwn, "unordered_map", getAll<StdTable<true>, kCount>);
const Peer build1Std(build1, "unordered_map", build<StdTable<false>, kCount>);
const Peer build8Std(build8, "unordered_map", build<StdTable<false>, kCount>);

#ifdef KEP_BENCH_HAVE_GLIB

// Chooses its size itself, so it has fewer keys a bucket.
class GlibTable {
 public:
  GlibTable(uint32_t, bool) : table_(g_hash_table_new_full(g_str_hash, g_str_equal, std::free, std::free)) {}
  ~GlibTable() { g_hash_table_destroy(table_); }
  GlibTable(const GlibTable &) = delete;

  void set(const Key &key) { g_hash_table_insert(table_, copyOf(&key, sizeof key), copyOf(&value, sizeof value)); }
  void get(const Key &key) { keep(g_hash_table_lookup(table_, key.text)); }

 private:
  static void *copyOf(const void *bytes, size_t size) {
    void *copy = std::malloc(size);
    std::memcpy(copy, bytes, size);
    return copy;
  }

  GHashTable *table_;
};

const Peer get8Glib(get8, "GHashTable", getAll<GlibTable, 0>);
const Peer miss8Glib(miss8, "GHashTable", getNone<GlibTable, 0>);
const Peer set8Glib(set8, "GHashTable", setAll<GlibTable, 0>);

#endif

}  // namespace
