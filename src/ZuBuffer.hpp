// ZuBuffer.hpp: big-endian loads and stores at any address, the byte order of every record, file and message.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kep/ZuBuffer.h"

template <typename Unsigned>
inline uint8_t *storeBig(uint8_t *out, Unsigned value) {
  for (size_t i = 0; i < sizeof(Unsigned); ++i) out[i] = static_cast<uint8_t>(value >> 8 * (sizeof(Unsigned) - 1 - i));
  return out + sizeof(Unsigned);
}

template <typename Unsigned>
inline Unsigned loadBig(const uint8_t *in) {
  Unsigned value = 0;
  for (size_t i = 0; i < sizeof(Unsigned); ++i) value = static_cast<Unsigned>(uint64_t{value} << 8 | in[i]);
  return value;
}
