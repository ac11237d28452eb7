// ZuBuf.hpp: what modules need that put text into a buffer.
#pragma once

#include "kep/ZuBuf.h"

// Whether the elements are bytes. Text appended to wider ones would be read beyond its end.
bool holdsBytes(const ZuBuf *buf);

// Appends `ch` to a buffer of 1-byte elements, `count` times. As with so many single appends, each that finds no memory
// is missing.
void appendRun(ZuBuf *buf, char ch, uint32_t count);
