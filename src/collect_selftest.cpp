// collect_selftest.cpp: a self-test run. As a collection run, but without a catalogue: each item's data begins with its
// name instead, under an item index that no item has.
#include "Kep.hpp"
#include "collect_getdata.hpp"
#include "kep/CollectClient.h"

namespace {

constexpr int32_t kNameIndex = 0xFFFF;

bool testItem(const CollectItem *item) {
  logItem(item, "selftest begin...");
  CollectClient_CollectString(kNameIndex, 0, 0, item->name, 0);
  if (itemOfRun(item->index)) item->selftest(0);  // not released meanwhile
  logItem(item, "selftest end");
  return flushToServer();
}

bool testItems(int32_t itemCount) {
  CollectClient_SetType(kDataMessage);
  for (int32_t i = 0; i < itemCount; ++i) {
    const CollectItem *item = itemOfRun(i);
    if (item && item->selftest && !testItem(item)) return false;
  }
  CollectClient_End();
  return true;
}

}  // namespace

int32_t Collect_SelfTest(const char *addressText, int32_t port, int32_t sequence, uint8_t id0, uint8_t id1) {
  const Waiting mark(__func__);
  const int32_t itemCount = beginItems();
  return endItems(beginRun(addressText, port, sequence, id0, id1) && testItems(itemCount));
}
