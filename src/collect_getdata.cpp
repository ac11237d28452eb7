// collect_getdata.cpp: a collection run, from connecting back to the server to closing the connection:
// the identity, the catalogue of items, one or more messages of data for each item, and a last message.
#include "collect_getdata.hpp"

#include "Kep.hpp"
#include "ZuLogger.hpp"
#include "collect_client.hpp"
#include "collect_stop.hpp"
#include "kep/ZuString.h"
#include "kep/ZuTime.h"

namespace {

void log(const char *text) { writeLine(g_collect_param.logger, ZULOGGER_INFO, text, !isSilent()); }

bool sendCatalogue(int32_t itemCount) {
  CollectClient_SetType(kCatalogueMessage);
  for (int32_t i = 0; i < itemCount; ++i) {
    const CollectItem *item = itemOfRun(i);
    if (!item) continue;
    CollectClient_AppendInt(item->index);
    CollectClient_AppendString(item->name);
  }
  return flushToServer();
}

bool collectItem(const CollectItem *item, int32_t requestType) {
  logItem(item, "begin...");
  if (itemOfRun(item->index)) item->collect(requestType);  // not released while the line was printed
  logItem(item, "end");
  return flushToServer();
}

bool collectItems(int32_t itemCount, int32_t requestType) {
  CollectClient_SetType(kDataMessage);
  for (int32_t i = 0; i < itemCount; ++i) {
    const CollectItem *item = itemOfRun(i);
    if (item && item->collect && !collectItem(item, requestType)) return false;
  }
  CollectClient_End();
  return true;
}

}  // namespace

bool beginRun(const char *addressText, int32_t port, int32_t sequence, uint8_t id0, uint8_t id1) {
  if (!CollectClient_Start(addressText, port)) {
    log("connect to server fail.");
    return false;
  }
  CollectClient_SetType(kIdentityMessage);
  const uint8_t identity[4] = {id0, id1, 0, 0};
  CollectClient_AppendBuffer(identity, sizeof identity);
  CollectClient_Flush(sequence);  // unchecked: a lost connection shows at the next flush
  return !isStopped();            // which may come behind a callback
}

bool flushToServer() {
  if (CollectClient_Flush(0)) return true;
  log("flush to server fail.");
  return false;
}

void logItem(const CollectItem *item, const char *what) {
  char time[64];
  ZuTime_Format(time, "YY/MM/DD HH:MI:SS", 0);
  log(ZuString_SFormat("%s [%s] %s\n", time, item->name, what));
}

int32_t Collect_Start(const char *addressText, int32_t port, int32_t requestType, int32_t sequence, uint8_t id0,
                      uint8_t id1) {
  const Waiting mark(__func__);
  const int32_t itemCount = beginItems();
  return endItems(beginRun(addressText, port, sequence, id0, id1) && sendCatalogue(itemCount) &&
                  collectItems(itemCount, requestType));
}
