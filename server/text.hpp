// text.hpp: what makes bytes fit to be shown, so that nothing a board sends can steer a terminal, and every byte can be
// told; and what is printed on its way to a stream.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

namespace kepserver {

// Gathers text for a stream: one call for each field would cost more than the printing. A value can have as much as a
// whole run, so nothing longer than a portion is kept back. What is not flushed is lost.
class Sink {
 public:
  static constexpr size_t kPortion = 65536;

  explicit Sink(std::ostream &out) : out_(out), portion_(kPortion, '\0') {}
  Sink(const Sink &) = delete;
  Sink &operator=(const Sink &) = delete;

  Sink &append(std::string_view text) {
    if (text.size() > kPortion - size_) pass();
    if (text.size() > kPortion) {
      out_.write(text.data(), static_cast<std::streamsize>(text.size()));
      return *this;
    }
    size_ += text.copy(portion_.data() + size_, text.size());
    return *this;
  }

  Sink &operator<<(std::string_view text) { return append(text); }
  Sink &operator<<(char c) { return append({&c, 1}); }
  template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
  Sink &operator<<(Number number) {
    constexpr size_t kMostDigits = 20;
    if (kPortion - size_ < kMostDigits) pass();
    char *const digits = portion_.data() + size_;
    size_ += static_cast<size_t>(std::to_chars(digits, digits + kMostDigits, number).ptr - digits);
    return *this;
  }

  Sink &blanks(size_t count) {
    for (; count > 0; --count) *this << ' ';
    return *this;
  }

  void flush() {
    pass();
    out_.flush();
  }

 private:
  void pass() {
    out_.write(portion_.data(), static_cast<std::streamsize>(size_));
    size_ = 0;
  }

  std::ostream &out_;
  std::string portion_;
  size_t size_ = 0;  // of what of it waits
};

bool isUtf8(std::string_view bytes);

// Whether every byte is a visible character of ASCII, or a blank, and means itself in every format.
bool isPlain(std::string_view bytes);

// Printable UTF-8 stays as it is, a backslash becomes \\, a line feed \n, a carriage return \r, a tab \t, and every
// other byte \xHH.
std::string printable(std::string_view bytes);
void putPrintable(Sink &out, std::string_view bytes);

// Two lower-case digits a byte.
std::string hex(std::string_view bytes);
void putHex(Sink &out, std::string_view bytes);

// The size of the first portion of `bytes`, which cuts no character.
size_t portionOf(std::string_view bytes);

// How many columns a printable text takes, two for a character as wide as those of Chinese.
size_t widthOf(std::string_view text);

// The size of the first characters of a printable text that take no more than so many columns.
size_t prefixOf(std::string_view text, size_t columns);

}  // namespace kepserver
