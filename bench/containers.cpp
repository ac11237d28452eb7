// containers.cpp: list, set and byte buffer beside what is written by hand, and what a C++ user would otherwise take.
#include <kep/ZuBuf.h>
#include <kep/ZuList.h>
#include <kep/ZuSet.h>

#ifdef KEP_BENCH_HAVE_GLIB
#include <glib.h>
#endif

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench.hpp"

namespace {

constexpr int32_t kCount = 1000;

// ---- list: find by a walk

char elements[kCount];

void ignoreElement(void *) {}

int32_t isSame(void *element, const void *key) { return element != key; }

void kepFind(Run &run) {
  ZuList *list = ZuList_New(0, ignoreElement);
  for (char &element : elements) ZuList_Push(list, &element);
  run.time([&] { keep(ZuList_Find(list, isSame, &elements[0])); });
  ZuList_Release(list);
}

struct Node {
  Node *next;
  void *element;
};

CALLED void *findPlainly(Node *node, int32_t (*compare)(void *, const void *), const void *key) {
  while (node && compare(node->element, key) != 0) node = node->next;
  return node ? node->element : nullptr;
}

void plainFind(Run &run) {
  Node *head = nullptr;
  for (char &element : elements) head = new Node{head, &element};
  run.time([&] { keep(findPlainly(head, isSame, &elements[0])); });
  while (head) {
    Node *next = head->next;
    delete head;
    head = next;
  }
}

const Row find("list walk of 1,000, an element", kCount, kepFind, plainFind, {1.15, 1.2});

#ifdef KEP_BENCH_HAVE_GLIB
gint compareElements(gconstpointer element, gconstpointer key) { return element != key; }

void glibFind(Run &run) {
  GSList *list = nullptr;
  for (char &element : elements) list = g_slist_prepend(list, &element);
  run.time([&] { keep(g_slist_find_custom(list, &elements[0], compareElements)); });
  g_slist_free(list);
}

const Peer findGlib(find, "GSList", glibFind);
#endif

// ---- set: every index asked; every index set, then cleared

struct Bits {
  uint32_t capacity;
  int32_t members;
  uint8_t bytes[kCount / 8 + 1];
};

CALLED int32_t getPlainly(const Bits *bits, uint32_t index) {
  return index < bits->capacity && (bits->bytes[index / 8] >> index % 8 & 1) != 0;
}

CALLED int32_t setPlainly(Bits *bits, uint32_t index, int32_t flag) {
  if (index >= bits->capacity) return 0;
  uint8_t &byte = bits->bytes[index / 8];
  const auto bit = static_cast<uint8_t>(1U << index % 8);
  if (((byte & bit) != 0) == (flag != 0)) return 0;
  byte ^= bit;
  bits->members += flag ? 1 : -1;
  return 1;
}

template <typename Get>
void askAll(Run &run, const Get &get) {
  run.time([&] {
    for (uint32_t i = 0; i < kCount; ++i) keep(get(i));
  });
}

template <typename Set>
void changeAll(Run &run, const Set &set) {
  run.time([&] {
    for (const int32_t flag : {1, 0}) {
      for (uint32_t i = 0; i < kCount; ++i) keep(set(i, flag));
    }
  });
}

void kepAsk(Run &run) {
  ZuSet *set = ZuSet_New(kCount);
  for (uint32_t i = 0; i < kCount; i += 3) ZuSet_Set(set, i, 1);
  askAll(run, [set](uint32_t i) { return ZuSet_Get(set, i); });
  ZuSet_Release(set);
}

void plainAsk(Run &run) {
  Bits bits = {kCount, 0, {}};
  for (uint32_t i = 0; i < kCount; i += 3) setPlainly(&bits, i, 1);
  askAll(run, [&](uint32_t i) { return getPlainly(&bits, i); });
}

void stdAsk(Run &run) {
  std::vector<bool> set(kCount);
  for (size_t i = 0; i < kCount; i += 3) set[i] = true;
  askAll(run, [&](uint32_t i) { return bool(set[i]); });
}

void kepChange(Run &run) {
  ZuSet *set = ZuSet_New(kCount);
  changeAll(run, [set](uint32_t i, int32_t flag) { return ZuSet_Set(set, i, flag); });
  ZuSet_Release(set);
}

void plainChange(Run &run) {
  Bits bits = {kCount, 0, {}};
  changeAll(run, [&](uint32_t i, int32_t flag) { return setPlainly(&bits, i, flag); });
}

// It counts no members, and does not say whether anything changed.
void stdChange(Run &run) {
  std::vector<bool> set(kCount);
  changeAll(run, [&](uint32_t i, int32_t flag) {
    set[i] = flag != 0;
    return &set;
  });
}

const Row ask("set get", kCount, kepAsk, plainAsk, {1.4, 2.5});
const Peer askStd(ask, "vector<bool>, inlined", stdAsk);
const Row change("set set", 2 * kCount, kepChange, plainChange, {1.3, 1.8});
const Peer changeStd(change, "vector<bool>, inlined", stdChange);

// ---- byte buffer: appended to where room is, and growing to 1 MiB by its fixed step

constexpr uint32_t kStep = 4096;
constexpr uint32_t kGrown = 1U << 20;
constexpr uint32_t kPiece = 64;
const char piece[kPiece] = "a piece of text";

struct Buffer {
  char *data;
  size_t length, capacity;
};

CALLED bool appendPlainly(Buffer *buffer, const void *src, size_t n) {
  const size_t need = buffer->length + n;
  if (need > buffer->capacity) {
    const size_t capacity = (need + kStep - 1) / kStep * kStep;
    auto *data = static_cast<char *>(std::malloc(capacity));
    if (!data) return false;
    std::memcpy(data, buffer->data, buffer->length);
    std::memset(data + buffer->length, 0, capacity - buffer->length);
    std::free(buffer->data);
    buffer->data = data;
    buffer->capacity = capacity;
  }
  std::memcpy(buffer->data + buffer->length, src, n);
  buffer->length = need;
  return true;
}

Buffer makeBuffer() { return {static_cast<char *>(std::calloc(1, kStep)), 0, kStep}; }

// A block is filled and cleared. Pieces are of `n` bytes.
Side kepAppend(uint32_t n) {
  return [n](Run &run) {
    ZuBuf *buf = ZuBuf_New(1, kStep, 0);
    run.time([&] {
      for (uint32_t i = 0; i < kStep; i += n) keep(ZuBuf_Append(buf, piece, n));
      ZuBuf_Clear(buf);
    });
    ZuBuf_Release(buf);
  };
}

Side plainAppend(uint32_t n) {
  return [n](Run &run) {
    Buffer buffer = makeBuffer();
    run.time([&] {
      for (uint32_t i = 0; i < kStep; i += n) keep(appendPlainly(&buffer, piece, n));
      std::memset(buffer.data, 0, buffer.length);
      buffer.length = 0;
    });
    std::free(buffer.data);
  };
}

Side stdAppend(uint32_t n) {
  return [n](Run &run) {
    std::string text;
    text.reserve(kStep);
    run.time([&] {
      for (uint32_t i = 0; i < kStep; i += n) keep(text.append(piece, n).data());
      std::memset(text.data(), 0, text.size());
      text.clear();
    });
  };
}

void kepGrow(Run &run) {
  run.time([] {
    ZuBuf *buf = ZuBuf_New(1, kStep, 0);
    for (uint32_t i = 0; i < kGrown; i += kPiece) keep(ZuBuf_Append(buf, piece, kPiece));
    ZuBuf_Release(buf);
  });
}

void plainGrow(Run &run) {
  run.time([] {
    Buffer buffer = makeBuffer();
    for (uint32_t i = 0; i < kGrown; i += kPiece) keep(appendPlainly(&buffer, piece, kPiece));
    std::free(buffer.data);
  });
}

const Row append1("byte buffer append of 1 byte", kStep, kepAppend(1), plainAppend(1), {1.25, 1.5});
const Peer append1Std(append1, "std::string, inlined", stdAppend(1));
const Row append64("byte buffer append of 64 bytes", kStep / kPiece, kepAppend(kPiece), plainAppend(kPiece),
                   {1.5, 1.6});
const Peer append64Std(append64, "std::string, inlined", stdAppend(kPiece));
const Row grow("byte buffer growing to 1 MiB, an append of 64 bytes", kGrown / kPiece, kepGrow, plainGrow, {1.1, 0});

}  // namespace
