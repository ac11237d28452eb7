// board_stream.hpp: builds, byte by byte, what a board would send.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace board {

inline std::string number(uint64_t value, size_t size) {
  std::string bytes;
  for (size_t i = size; i > 0; --i) bytes += static_cast<char>(value >> (8 * (i - 1)) & 0xFF);
  return bytes;
}

inline std::string word(int64_t value) { return number(static_cast<uint64_t>(value), 4); }

inline std::string message(int32_t type, int32_t sequence, const std::string &payload) {
  return word(static_cast<int64_t>(payload.size()) + 12) + word(type) + word(sequence) + payload;
}

inline std::string head(uint8_t type, int32_t item, int32_t section, int32_t key) {
  return number(type, 1) + word(item) + word(section) + word(key);
}

inline std::string counted(const std::string &bytes) { return number(bytes.size(), 2) + bytes; }

inline std::string joined(const std::vector<std::string> &parts) {
  std::string all;
  for (const std::string &part : parts) all += part;
  return all;
}

// A collection answering request sequence 77 while the board's own count stands at 41. It has every kind of record, a
// string in three pieces, values out of order, equal keys, an item that reports nothing and one that has no name.
inline std::vector<std::string> collection() {
  // An escape sequence; in UTF-8, a control, a mark that turns text around, six characters that do not show, an
  // overlong z, a surrogate, what lies beyond Unicode, and characters broken off.
  const std::string unprintable =
      "\x1B[2J\x7F\xC2\x9B\xE2\x80\xAE"
      "\xC2\xAD\xE1\x85\x9F\xEF\xB8\x8F\xEF\xBF\xB9\xF0\x9D\x85\xB3\xF3\xA0\x81\x81"
      "\xC1\xBA\xED\xA0\x80\xF4\x90\x80\x80\xE2\x82 b\xE2\x82";
  const std::string mixed = head(0x84, 1, 2, 0) + counted(std::string("\x00\xFF\x10", 3)) + head(0x82, 1, 0, 1) +
                            number(0x8000000000000000, 8) + head(0x83, 0, 0, 4) +
                            counted("second \"quoted\"\n\r\t \xE2\x82\xAC\xF0\x9F\x98\x80");
  return {
      message(0, 77, std::string("KB\0\0", 4)),
      message(1, 42, word(0) + counted("log") + word(1) + counted("caf\xC3\xA9")),
      message(2, 43, head(0x03, 0, 0, 4) + counted("=first, ")),
      message(2, 44, head(0x03, 0, 0, 4) + counted("of ") + head(0x83, 0, 0, 4) + counted(unprintable + "\\")),
      message(2, 45, mixed),
      message(2, 46, ""),
      message(2, 47, head(0x81, 65535, 0, 0) + word(-5)),
      message(2, 48, ""),
  };
}

inline std::vector<std::string> selfTest() {
  return {
      message(0, 77, std::string("KB\0\0", 4)),
      message(2, 1, head(0x83, 65535, 0, 0) + counted("fan") + head(0x81, 3, 0, 1) + word(0)),
      message(2, 2, head(0x83, 65535, 0, 0) + counted("disk") + head(0x81, 1, 0, 1) + word(1)),
      message(2, 3, ""),
  };
}

}  // namespace board
