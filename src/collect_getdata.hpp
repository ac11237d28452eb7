// collect_getdata.hpp: what a collection run and a self-test have in common.
#pragma once

#include <cstdint>

#include "kep/Collect.h"

// Between these two no item is freed or changes its index. The first returns how many items the run has, the second
// counts the run and returns its result.
int32_t beginItems();
int32_t endItems(bool isDone);

// An item of the run, NULL when it has been released since.
const CollectItem *itemOfRun(int32_t index);

// Connects to the server and sends the identity message. False when the server cannot be reached, which is
// logged, or the service stops.
bool beginRun(const char *addressText, int32_t port, int32_t sequence, uint8_t id0, uint8_t id1);

// Sends the message gathered. False, and logged, when that fails; the next run closes a connection that is left.
bool flushToServer();

// Logs "<time> [<item name>] <what>\n".
void logItem(const CollectItem *item, const char *what);

// The message types, in the order of a run.
enum MessageType : int32_t { kIdentityMessage, kCatalogueMessage, kDataMessage };
