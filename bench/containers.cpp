// containers.cpp: list, set and byte buffer beside what a C++ user would otherwise take.
#include <kep/ZuBuf.h>
#include <kep/ZuList.h>
#include <kep/ZuSet.h>

#include <cstring>
#include <list>
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

// ---- set: every index asked

void kepAsk(Run &run) {
  ZuSet *set = ZuSet_New(kCount);
  for (uint32_t i = 0; i < kCount; i += 3) ZuSet_Set(set, i, 1);
  run.time([&] {
    for (uint32_t i = 0; i < kCount; ++i) keep(ZuSet_Get(set, i));
  });
  ZuSet_Release(set);
}

void stdAsk(Run &run) {
  std::vector<bool> set(kCount);
  for (size_t i = 0; i < kCount; i += 3) set[i] = true;
  run.time([&] {
    for (size_t i = 0; i < kCount; ++i) keep(bool(set[i]));
  });
}

const Row ask("set get", kCount, kepAsk, nullptr, {1.4, 2.5});
const Peer askStd(ask, "vector<bool>, inlined", stdAsk);

// ---- byte buffer: short texts appended

void kepAppend(Run &run) {
  ZuBuf *buf = ZuBuf_New(1, 4096, 4096);
  run.time([&] {
    for (int32_t i = 0; i < kCount; ++i) ZuBuf_Append(buf, "sixteen bytes ..", 16);
    ZuBuf_Clear(buf);
  });
  ZuBuf_Release(buf);
}

void stdAppend(Run &run) {
  std::string text;
  run.time([&] {
    for (int32_t i = 0; i < kCount; ++i) text.append("sixteen bytes ..", 16);
    keep(text.data());
    std::memset(text.data(), 0, text.size());
    text.clear();
  });
}

const Row append("byte buffer append of 16 bytes", kCount, kepAppend, nullptr, {});
const Peer appendStd(append, "std::string", stdAppend);

}  // namespace
