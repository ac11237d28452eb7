// ZuBuffer.hpp: big-endian loads and stores at any address, the byte order of every record, file and message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "kep/ZuBuffer.h"

// Byte by byte without a loop, which compilers make one load or store of.
template <typename Unsigned, size_t... kBytes>
inline void storeBytes(uint8_t *out, Unsigned value, std::index_sequence<kBytes...>) {
  ((out[kBytes] = static_cast<uint8_t>(value >> 8 * (sizeof(Unsigned) - 1 - kBytes))), ...);
}

template <typename Unsigned, size_t... kBytes>
inline Unsigned loadBytes(const uint8_t *in, std::index_sequence<kBytes...>) {
  return static_cast<Unsigned>(((Unsigned{in[kBytes]} << 8 * (sizeof(Unsigned) - 1 - kBytes)) | ...));
}

template <typename Unsigned>
inline uint8_t *storeBig(uint8_t *out, Unsigned value) {
  storeBytes(out, value, std::make_index_sequence<sizeof(Unsigned)>{});
  return out + sizeof(Unsigned);
}

template <typename Unsigned>
inline Unsigned loadBig(const uint8_t *in) {
  return loadBytes<Unsigned>(in, std::make_index_sequence<sizeof(Unsigned)>{});
}
