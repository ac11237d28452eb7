// ZuBuf.hpp: runs of one character, for modules that draw text.
#pragma once

#include "kep/ZuBuf.h"

// Appends `ch` to a buffer of 1-byte elements, `count` times. As with so many single appends, each that finds no memory
// is missing.
void appendRun(ZuBuf *buf, char ch, uint32_t count);
