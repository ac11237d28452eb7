// print.hpp: the three formats in which everything is printed: a table, JSON lines, CSV.
//
// Bytes are made fit to be shown by the format's own rules; what else is put is known to be harmless. Every output in
// JSON begins with a line that names its layout and the layout's version: {"row":"layout","layout":NAME,"version":N}.
// Members may join a row, and kinds of rows a layout, without a new version; a new one tells that something changed
// its name, its place or what it means.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numeric>
#include <string>
#include <string_view>
#include <type_traits>

#include "server/text.hpp"

namespace kepserver {

enum class Format { kText, kJson, kCsv };

struct Style {
  Format format = Format::kText;
  bool csvRaw = false;     // texts in CSV as they are, even where a spreadsheet would take them for a formula
  bool bigAsText = false;  // whole numbers in JSON that a double could not hold exactly, in quotes

  // Of text with names.
  size_t width = 0;    // of a line, in characters; 0: as long as it likes
  bool isCut = false;  // what is longer, rather than broken
  bool colours = false;
};

// A table of `kCount` columns, and a last one behind them, which ends the line and is as long as it likes. Rows are
// made twice, for their widths and to be printed, rather than all kept. Cells are printable.
template <size_t kCount>
class Table {
 public:
  using Row = std::array<std::string, kCount>;

  explicit Table(const std::array<bool, kCount> &rightAligned) : rightAligned_(rightAligned) {}

  void widen(const Row &row) {
    for (size_t i = 0; i < kCount; ++i) widths_[i] = std::max(widths_[i], widthOf(row[i]));
  }

  // Of a line in front of the last column.
  size_t width() const { return std::accumulate(widths_.begin(), widths_.end(), 2 * kCount); }

  // Leaves the line open for the last column.
  void put(Sink &out, const Row &row) const {
    for (size_t i = 0; i < kCount; ++i) {
      const size_t padding = widths_[i] - widthOf(row[i]);
      if (rightAligned_[i]) out.blanks(padding);
      out << row[i];
      if (!rightAligned_[i]) out.blanks(padding);
      out << "  ";
    }
  }

 private:
  std::array<bool, kCount> rightAligned_;
  std::array<size_t, kCount> widths_{};
};

// One object on a line of its own, its members in the order of the calls; end() ends it. ASCII only: whatever could
// steer a terminal leaves as \uXXXX.
class JsonLine {
 public:
  JsonLine(Sink &out, std::string_view row, const Style &style = {});

  JsonLine &word(std::string_view key, std::string_view word);  // nothing in it needs an escape
  JsonLine &hex(std::string_view key, std::string_view bytes);
  JsonLine &flag(std::string_view key, bool value);

  // JSON holds text only: of bytes that are not UTF-8 some are replaced, and stand exactly in `key`_hex.
  JsonLine &text(std::string_view key, std::string_view bytes);

  template <class Number>
  JsonLine &number(std::string_view key, Number number) {
    const char *const quote = bigAsText_ && isBig(number) ? "\"" : "";
    begin(key) << quote << number << quote;
    return *this;
  }

  void end() { out_ << "}\n"; }

 private:
  Sink &begin(std::string_view key);

  template <class Number>
  static bool isBig(Number number) {
    constexpr Number kMost = sizeof number < 8 ? std::numeric_limits<Number>::max() : static_cast<Number>(1ull << 53);
    return number > kMost || (std::is_signed_v<Number> && number < -kMost);
  }
  static bool isBig(std::string_view digits) { return digits.size() > 15; }

  Sink &out_;
  bool bigAsText_;
};

void putLayout(Sink &out, std::string_view layout, int version);

// One line, its fields in the order of the calls; end() ends it. Line ends are a lone line feed, which the tools that
// read CSV on Linux expect.
class CsvLine {
 public:
  CsvLine(Sink &out, const Style &style, std::string_view row) : out_(out), raw_(style.csvRaw) { out_ << row; }

  CsvLine &word(std::string_view word);  // nothing in it needs quotes
  CsvLine &hex(std::string_view bytes);
  CsvLine &empty(size_t count);

  // A text that begins as a formula does gets an apostrophe in front, for which a spreadsheet shows it as it is.
  CsvLine &text(std::string_view bytes);

  template <class Number>
  CsvLine &number(Number number) {
    out_ << ',' << number;
    return *this;
  }

  void end() { out_ << '\n'; }

 private:
  Sink &out_;
  bool raw_;
};

}  // namespace kepserver
