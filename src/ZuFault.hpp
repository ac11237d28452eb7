// ZuFault.hpp: the fault's record, whose logs the collection service sends.
#pragma once

#include "kep/ZuFault.h"
#include "kep/ZuLogger.h"

struct ZuFault {
  ZuFaultCallback callback;  // may be NULL
  ZuLogger *initLog;
  ZuLogger *runLog;
  uint32_t info;  // the host's
  int32_t ignore;
  uint8_t index;  // low 8 bits of the position in the list
  char name[23];
};
static_assert(sizeof(void *) != 4 || sizeof(ZuFault) == 44, "the board's record");
