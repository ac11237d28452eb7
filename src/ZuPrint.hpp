// ZuPrint.hpp: how much a print object holds, which tells a builder of strings where its text ends; and the way of the
// few texts that pass the print sink by.
#pragma once

#include "kep/ZuPrint.h"

int32_t printLength(const ZuPrint *obj);

// Prints a text of at most 255 bytes to standard output.
void printPastSink(const char *format, ...) KEP_PRINTF(1, 2);
