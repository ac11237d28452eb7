// collect_getdata.hpp: what a collection run and a self-test have in common.
#pragma once

#include <cstdint>

#include "kep/Collect.h"

// Connects to the server and sends the identity message. False, and logged, when the server cannot be reached.
bool beginRun(const char *addressText, int32_t port, int32_t sequence, uint8_t id0, uint8_t id1);

// Sends the message gathered. False, and logged, when that fails; the next run closes a connection that is left.
bool flushToServer();

// Logs "<time> [<item name>] <what>\n".
void logItem(const CollectItem *item, const char *what);

// Counts a run and returns the result that its caller gives.
int32_t countRun(bool finished);

// The message types, in the order of a run.
enum MessageType : int32_t { kIdentityMessage, kCatalogueMessage, kDataMessage };
