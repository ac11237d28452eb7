// bytes.cpp: the words for a damage.

#include "server/bytes.hpp"

namespace kepserver {

std::string describe(const Damage &damage) {
  return (damage.cutShort ? "cut short at offset " : "damaged at offset ") + std::to_string(damage.offset) + ": " +
         damage.reason;
}

}  // namespace kepserver
