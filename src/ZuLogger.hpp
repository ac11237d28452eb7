// ZuLogger.hpp: the logger's record, whose store others read, and the text of a store's state.
#pragma once

#include "kep/ZuLogger.h"

struct ZuLogger {
  char fileName[500];  // for the host, as are the descriptor, UDP host and port, and headers
  ZuInfo *store;       // NULL until the first line is kept
  int32_t descriptor;  // 0: none
  char udpHost[20];
  int32_t udpPort;
  uint32_t flags;
  int32_t ignore;
  uint32_t storeSize;  // limit of the store in bytes, when it is made
  char headers[100][50];
  int32_t headerDepth;  // index of the top header, -1: none
};
static_assert(sizeof(void *) != 4 || sizeof(ZuLogger) == 5548, "the board's record");

// As ZuLogger_Write, with its echo or without.
int32_t writeLine(ZuLogger *logger, int32_t level, const char *text, bool mayEcho);

// The store that keeps the logger's lines, NULL until the first.
ZuInfo *storeOfLogger(const ZuLogger *logger);

// As ZuLogger_Dump, also under the lock: for the store's trace.
void printStore(const ZuInfo *store);
