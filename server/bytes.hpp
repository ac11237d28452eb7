// bytes.hpp: what all that is decoded has in common: numbers are big-endian, and there is a first damage.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kepserver {

struct Damage {
  uint64_t offset = 0;  // from the start of what is decoded
  std::string reason;
  bool cutShort = false;  // nothing wrong was read, but the bytes ended too early
};

// "damaged at offset .." or "cut short at offset .."
std::string describe(const Damage &damage);

// Reads the sizeof(Unsigned) bytes at `bytes`.
template <class Unsigned>
Unsigned loadBig(const char *bytes) {
  Unsigned number = 0;
  for (size_t i = 0; i < sizeof number; ++i) {
    number = static_cast<Unsigned>(static_cast<uint64_t>(number) << 8 | static_cast<uint8_t>(bytes[i]));
  }
  return number;
}

}  // namespace kepserver
