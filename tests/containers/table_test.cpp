// table_test.cpp: text tables, drawn whole, and what their setters answer.
#include <gtest/gtest.h>
#include <kep/ZuTable.h>

#include "support/platform_double.hpp"

namespace {

enum Type : int32_t { kDouble, kFloat, kInt32, kInt64, kText, kUnknown };

std::string of(size_t count, char ch = ' ') { return std::string(count, ch); }

class TextTable : public testing::Test {
 protected:
  TextTable() { platform::takePrinted(); }
  ~TextTable() override { ZuTable_Release(table_); }

  void *column(int32_t col, const std::string &name, int32_t type, const std::string &format, char align = 'c') {
    return ZuTable_SetTitle(table_, col, name.c_str(), type, format.c_str(), align);
  }
  template <typename Value>  // double, float, int for 32 bits, int64_t
  void *cell(int32_t row, int32_t col, Value value) {
    return ZuTable_Set(table_, row, col, &value);
  }
  void *cell(int32_t row, int32_t col, const char *value) { return ZuTable_Set(table_, row, col, value); }

  void startAgain() {
    ZuTable_Release(table_);
    table_ = ZuTable_New();
  }

  // The table as a byte buffer gets it.
  std::string appended() {
    ZuBuf *buffer = ZuBuf_New(1, 16, 0);
    ZuTable_ShowToBuf(table_, buffer);
    void *text = nullptr;
    const uint32_t length = ZuBuf_Get(buffer, 0, &text) ? ZuBuf_Length(buffer) : 0;
    std::string all(text ? static_cast<char *>(text) : "", length);
    ZuBuf_Release(buffer);
    return all;
  }

  std::string printed() {
    EXPECT_EQ(ZuTable_Show(table_), 0);
    return platform::takePrinted();
  }

  // What lies in a buffer of `size` bytes after drawing into it.
  std::string held(size_t size) {
    constexpr char kGuard = '\x7F';
    std::string buffer(size + 1, kGuard);
    const auto count = static_cast<size_t>(ZuTable_ShowToBuffer(table_, buffer.data(), static_cast<int32_t>(size)));
    EXPECT_EQ(buffer[size], kGuard) << "behind the buffer";
    return buffer.substr(0, count);
  }

  // The drawn table without its footer; whole it is the same in a byte buffer and on the console.
  std::string drawn() {
    const std::string text = appended();
    EXPECT_EQ(printed(), text);
    const std::string body = held(text.size());
    const std::string line(text.size() - text.rfind('\n', text.size() - 2) - 2, '-');
    const std::string footer =
        line + "\ntotal count = " + std::to_string(ZuTable_GetRowNum(table_)) + "\n" + line + "\n";
    EXPECT_EQ(text, body + footer);
    return body;
  }

  // The width of the only column.
  size_t width() { return drawn().find('\n'); }

  ZuTable *table_ = ZuTable_New();
};

TEST_F(TextTable, DrawsEveryTypeAndAlignment) {
  ZuTable_SetCaption(table_, "Load");
  column(0, "Name", kText, "%s");
  column(1, "Double", kDouble, "%.2f", 'R');
  column(2, "F", kFloat, "%.1f", 'L');
  column(3, "Int", kInt32, "%d", 'r');
  column(4, "Long", kInt64, "%lld", 'l');
  cell(0, 0, "ab"), cell(0, 1, 1.5), cell(0, 2, 0.5F), cell(0, 3, 7), cell(0, 4, int64_t{123456789012});
  cell(1, 1, 2.25), cell(1, 2, -1.5F), cell(1, 3, -3), cell(1, 4, int64_t{1});
  cell(3, 0, "longer name");
  const std::string head = of(46, '*') + "\n" + of(21) + "Load\n" + of(46, '*') +
                           "\n"
                           "    Name      Double   F    Int      Long     \n"
                           " -----------  ------  ----  ---  ------------ \n";
  EXPECT_EQ(drawn(), head +
                         "     ab          1.500.5       7123456789012  \n"
                         "                 2.25-1.5     -31             \n"
                         "\n"
                         " longer name                                  \n");

  // An unknown type stores and draws nothing; the cells of the other columns stay.
  column(4, "Long", kUnknown, "%lld", 'l');
  EXPECT_EQ(drawn().substr(drawn().size() - 79),
            "                 2.25-1.5     -3" + of(6) + "\n\n longer name " + of(25) + "\n");

  ZuTable_ClearLines(table_);
  EXPECT_EQ(ZuTable_GetRowNum(table_), 4);
  EXPECT_EQ(drawn().substr(drawn().size() - 6), " \n\n\n\n\n");
  ZuTable_Clear(table_);
  EXPECT_EQ(ZuTable_GetRowNum(table_) + ZuTable_GetColNum(table_), 0);
  ZuTable_SetCaption(table_, "");
  EXPECT_EQ(drawn(), "\n\n");
  EXPECT_EQ(appended(), "\n\n\ntotal count = 0\n\n");
}

TEST_F(TextTable, FillsACallersBufferAsFarAsItGoes) {
  column(0, "Name", kText, "%s");
  column(1, "Count", kInt32, "%d", 'R');
  cell(0, 0, "ab"), cell(0, 1, 7);
  const std::string body = " Name  Count \n ----  ----- \n  ab        7\n";
  EXPECT_EQ(drawn(), body);
  std::string buffer(100, '#');
  EXPECT_EQ(ZuTable_ShowToBuffer(table_, buffer.data(), 100), 42);
  EXPECT_EQ(buffer, body + of(58, '#')) << "without a terminator";
  EXPECT_EQ(held(43), body);
  // A buffer that overflows loses what it held and fills again from its start.
  EXPECT_EQ(held(42), "\n");
  EXPECT_EQ(held(20), "  7\n");
  EXPECT_EQ(held(15), "  ab        7\n");
  EXPECT_EQ(held(5), "7\n");
  EXPECT_EQ(held(2), "\n");
  EXPECT_EQ(held(1), "");
  char none = 'x';
  EXPECT_EQ(ZuTable_ShowToBuffer(table_, &none, -1), 0);
  EXPECT_EQ(none, 'x');
  EXPECT_EQ(platform::takePrinted(), "");

  const std::string footer = of(13, '-') + "\ntotal count = 1\n" + of(13, '-') + "\n";
  EXPECT_EQ(ZuTable_ShowToBuffer(table_, &none, 0), 0);
  EXPECT_EQ(platform::takePrinted(), body + footer) << "no size, no buffer";
  EXPECT_EQ(ZuTable_ShowToBuffer(table_, nullptr, 100), 0);
  EXPECT_EQ(platform::takePrintCalls().size(), 6U) << "line by line";
  for (const uintptr_t handle : {0U, 1U, 100U}) {
    ZuTable_ShowToBuf(table_, reinterpret_cast<ZuBuf *>(handle));
    EXPECT_EQ(platform::takePrinted(), body + footer) << handle;
  }
}

TEST_F(TextTable, IsTwoWiderThanTitleCellAndSum) {
  column(0, "Count", kInt32, "%d");
  EXPECT_EQ(width(), 7U);
  cell(0, 0, 7);
  EXPECT_EQ(width(), 7U);
  cell(1, 0, 12345678);
  EXPECT_EQ(width(), 10U);
  cell(1, 0, 1);
  EXPECT_EQ(width(), 7U) << "widths follow the cells down too";

  // The sum of two cells is a digit longer than each, and wraps where its type does.
  const auto widthOfSum = [this](int32_t type, const char *format, auto value1, auto value2) {
    startAgain();
    column(0, "V", type, format);
    cell(0, 0, value1), cell(1, 0, value2);
    return width();
  };
  EXPECT_EQ(widthOfSum(kDouble, "%.0f", 5.0, 5.0), 4U);
  EXPECT_EQ(widthOfSum(kFloat, "%.0f", 5.0F, 5.0F), 4U);
  EXPECT_EQ(widthOfSum(kInt32, "%d", 5, 5), 4U);
  EXPECT_EQ(widthOfSum(kInt64, "%lld", int64_t{5}, int64_t{5}), 4U);
  EXPECT_EQ(widthOfSum(kText, "%s", "5", "5"), 3U);
  EXPECT_EQ(widthOfSum(kUnknown, "%d", 55, 55), 3U);
  EXPECT_EQ(widthOfSum(kInt32, "%d", INT32_MAX, 1), 11U + 2);
  EXPECT_EQ(widthOfSum(kInt64, "%lld", INT64_MAX, int64_t{1}), 20U + 2);
}

TEST_F(TextTable, CutsLongTextsAndCountsThemWhole) {
  const std::string longText = of(150, 'x'), cut = of(99, 'x');
  const auto drawnAs = [&](char align) {
    column(0, "", kText, "%s", align);
    cell(0, 0, longText.c_str());
    return drawn();
  };
  const std::string head = of(152) + "\n " + of(150, '-') + " \n";
  EXPECT_EQ(drawnAs('L'), head + cut + "  \n");
  EXPECT_EQ(drawnAs('R'), head + "  " + cut + "\n");
  EXPECT_EQ(drawnAs('?'), head + " " + cut + " \n");

  startAgain();
  ZuTable_SetCaption(table_, longText.c_str());
  column(0, longText, kInt32, "%d");
  EXPECT_EQ(drawn(), of(101, '*') + "\n " + cut + "\n" + of(101, '*') + "\n " + cut + " \n " + of(99, '-') + " \n");
  column(0, "n", kInt32, "%d");
  EXPECT_EQ(drawn(), "***\n" + cut + "\n***\n n \n - \n") << "a caption wider than the table";

  EXPECT_EQ(column(1, "n", kInt32, "%d" + of(17, '.')), nullptr);
  EXPECT_EQ(ZuTable_GetColNum(table_), 2) << "19 characters of format fit";
  EXPECT_EQ(column(2, "n", kInt32, "%d" + of(18, '.')), nullptr);
  EXPECT_EQ(ZuTable_GetColNum(table_), 2) << "20 do not";
}

TEST_F(TextTable, AnswersWithTheSlotsFormerElement) {
  EXPECT_EQ(cell(0, 0, 1), nullptr) << "no title";
  EXPECT_EQ(column(1, "a", kInt32, "%d"), nullptr);
  EXPECT_EQ(ZuTable_GetColNum(table_), 2);
  EXPECT_NE(column(1, "b", kInt32, "%d"), nullptr);
  EXPECT_EQ(cell(3, 0, 1), nullptr) << "a column that was skipped";
  EXPECT_EQ(ZuTable_GetRowNum(table_), 0);
  EXPECT_EQ(cell(3, 1, 1), nullptr) << "stored, where nothing was";
  EXPECT_EQ(ZuTable_GetRowNum(table_), 4);
  void *record = cell(3, 1, 2);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(cell(3, 1, 3), record);
  EXPECT_EQ(*static_cast<int32_t *>(ZuTable_Get(table_, 3, 1)), 3);
  column(0, "text", kText, "<%s>");
  cell(3, 0, "x");
  EXPECT_STREQ(static_cast<char *>(ZuTable_Get(table_, 3, 0)), "<x>");
  for (const auto &[row, col] : {std::pair{2, 1}, {3, 2}, {4, 1}, {-1, 1}, {3, -1}}) {
    EXPECT_EQ(ZuTable_Get(table_, row, col), nullptr) << row << " " << col;
    if (row < 0 || col < 0) {
      EXPECT_EQ(cell(row, col, 1), nullptr);
    }
  }
  EXPECT_EQ(drawn(), " text  b \n ----  - \n\n\n\n <x>   3 \n");
}

TEST_F(TextTable, IsNotDrawnWithoutATitle) {
  ZuTable_SetCaption(table_, "x");
  column(0, "a", kInt32, "%d"), column(2, "c", kInt32, "%d");
  EXPECT_EQ(printed() + appended() + held(100), "");
  ZuTable_Release(table_);
  table_ = nullptr;
  EXPECT_EQ(column(0, "a", kInt32, "%d"), nullptr);
  EXPECT_EQ(cell(0, 0, "a"), nullptr);
  EXPECT_EQ(ZuTable_Get(table_, 0, 0), nullptr);
  ZuTable_Clear(table_), ZuTable_ClearLines(table_), ZuTable_SetCaption(table_, "x"), ZuTable_Sum(table_);
  EXPECT_EQ(ZuTable_GetRowNum(table_) + ZuTable_GetColNum(table_), 0);
  EXPECT_EQ(printed() + appended() + held(100), "");
}

TEST_F(TextTable, CountsARowWhoseCellsFoundNoMemory) {
  column(0, "a", kInt32, "%d");
  platform::failAllocation(0);
  EXPECT_EQ(cell(1, 0, 1), nullptr);
  EXPECT_EQ(ZuTable_GetRowNum(table_), 2) << "the row is there, empty";
  EXPECT_EQ(drawn(), " a \n - \n\n\n");
}

}  // namespace
