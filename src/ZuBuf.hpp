// ZuBuf.hpp: what modules need that put text into a buffer.
#pragma once

#include <cstdint>

#include "kep/ZuBuf.h"

// A host may give a number for "no buffer".
inline bool isAddress(const ZuBuf *buf) { return reinterpret_cast<uintptr_t>(buf) > 100; }

// Whether the elements are bytes. Text appended to wider ones would be read beyond its end.
bool holdsBytes(const ZuBuf *buf);

// Appends `ch` to a buffer of 1-byte elements, `count` times. As with so many single appends, each that finds no memory
// is missing.
void appendRun(ZuBuf *buf, char ch, uint32_t count);
