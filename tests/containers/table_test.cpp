// table_test.cpp: text tables, drawn whole, what their setters answer, and numbers beside printf's.
#include <gtest/gtest.h>
#include <kep/ZuTable.h>
#include <langinfo.h>

#include <cfenv>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <map>
#include <random>

#include "numbers.hpp"
#include "support/platform_double.hpp"

// Stands in for a locale with another decimal point, which the machine may not have. printf does not see it.
static bool pointIsForeign = false;
extern "C" char *nl_langinfo(nl_item item) noexcept {
  return const_cast<char *>(item != RADIXCHAR ? "" : pointIsForeign ? "," : ".");
}

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

  // What lies in a buffer of `size` bytes after drawing into it.
  std::string held(size_t size) {
    std::string buffer(size, '#');
    const int32_t count = ZuTable_ShowToBuffer(table_, buffer.data(), static_cast<int32_t>(size));
    return buffer.substr(0, static_cast<size_t>(count));
  }

  // What is appended to a byte buffer, which takes two blocks to make.
  std::string appended() {
    ZuBuf *buffer = ZuBuf_New(1, 16, 0);
    ZuTable_ShowToBuf(table_, buffer);
    const std::string all = heldBy(buffer);
    ZuBuf_Release(buffer);
    return all;
  }

  // The drawn table without its footer; whole it is the same in a byte buffer and on the console.
  std::string drawn() {
    const std::string all = appended();
    EXPECT_EQ(ZuTable_Show(table_), 0);
    EXPECT_EQ(platform::takePrinted(), all);
    const std::string body = held(all.size()), line = of(body.find('\n'), '-') + "\n";
    EXPECT_EQ(all, body + line + "total count = " + std::to_string(ZuTable_GetRowNum(table_)) + "\n" + line);
    return body;
  }

  ZuTable *table_ = ZuTable_New();
};

TEST_F(TextTable, DrawsEveryTypeAndAlignment) {
  ZuTable_SetCaption(table_, "Load");
  column(0, "Name", kText, "%s");
  column(1, "Double", kDouble, "%.2lf", 'R'), column(2, "F", kFloat, "%.1lf", 'L');
  column(3, "Int", kInt32, "%i", 'r'), column(4, "Long", kInt64, "%lli", 'l');
  cell(0, 0, "ab"), cell(0, 1, 1.5), cell(0, 2, 0.5F), cell(0, 3, 7), cell(0, 4, int64_t{123456789012});
  cell(1, 1, 2.25), cell(1, 2, -1.5F), cell(1, 3, -3), cell(1, 4, int64_t{1});
  cell(3, 0, "longer name");
  const std::string stars = of(46, '*') + "\n";
  EXPECT_EQ(drawn(), stars + of(21) + "Load\n" + stars +
                         "    Name      Double   F    Int      Long     \n"
                         " -----------  ------  ----  ---  ------------ \n"
                         "     ab          1.500.5       7123456789012  \n"
                         "                 2.25-1.5     -31             \n"
                         "\n"
                         " longer name                                  \n");
  column(4, "Long", kUnknown, "%lld", 'l');  // draws nothing; the cells of the other columns stay
  EXPECT_NE(drawn().find("     ab          1.500.5       7      \n"), std::string::npos);

  ZuTable_ClearLines(table_);
  EXPECT_EQ(drawn().substr(drawn().size() - 6), " \n\n\n\n\n") << "the rows stay, empty";
  ZuTable_Clear(table_), ZuTable_SetCaption(table_, "");
  EXPECT_EQ(ZuTable_GetRowNum(table_) + ZuTable_GetColNum(table_), 0);
  EXPECT_EQ(drawn(), "\n\n");
}

TEST_F(TextTable, FillsACallersBufferAsFarAsItGoes) {
  column(0, "Name", kText, "%s"), column(1, "Count", kInt32, "%d", 'R');
  cell(0, 0, "ab"), cell(0, 1, 7);
  const std::string body = " Name  Count \n ----  ----- \n  ab        7\n", line = of(13, '-') + "\n";
  std::string buffer(100, '#');
  EXPECT_EQ(ZuTable_ShowToBuffer(table_, buffer.data(), 100), 42);
  EXPECT_EQ(buffer, body + of(58, '#')) << "without a terminator";
  // A buffer that overflows loses what it held and fills again from its start.
  for (const auto &[size, text] : {std::pair{43U, body}, {42, "\n"}, {20, "  7\n"}, {5, "7\n"}, {2, "\n"}, {1, ""}}) {
    EXPECT_EQ(held(size), text);
  }
  EXPECT_EQ(ZuTable_ShowToBuffer(table_, buffer.data(), -1) + ZuTable_ShowToBuffer(table_, nullptr, 100), 0);
  EXPECT_EQ(platform::takePrintCalls().size(), 6U) << "line by line";
  EXPECT_EQ(ZuTable_ShowToBuffer(table_, buffer.data(), 0), 0);
  for (const uintptr_t handle : {0U, 100U}) ZuTable_ShowToBuf(table_, reinterpret_cast<ZuBuf *>(handle));
  const std::string whole = body + line + "total count = 1\n" + line;
  EXPECT_EQ(platform::takePrinted(), whole + whole + whole);
}

TEST_F(TextTable, LosesOnlyTheCharactersThatFindNoMemory) {
  column(0, of(40, 'n'), kText, "%s");
  ZuTable_SetCaption(table_, "x");  // 42 stars above it
  const std::string whole = appended();
  platform::failAllocation(2);
  EXPECT_EQ(appended(), whole.substr(1)) << "the 17th star";
  platform::failAllocation(2, true);
  EXPECT_EQ(appended(), of(16, '*'));
  platform::failAllocation(platform::kNever);
  ZuBuf *wide = ZuBuf_New(8, 16, 0), *narrow = ZuBuf_New(1, 16, 64);
  ZuTable_ShowToBuf(table_, wide), ZuTable_ShowToBuf(table_, narrow);
  EXPECT_EQ(ZuBuf_Length(wide), 0U) << "no text fits elements wider than a byte";
  EXPECT_EQ(ZuBuf_Length(narrow), whole.size());
  ZuBuf_Release(wide), ZuBuf_Release(narrow);
}

TEST_F(TextTable, IsTwoWiderThanTitleCellAndSum) {
  const auto add = [this](int32_t col, int32_t type, const char *format, auto value1, auto value2) {
    column(col, "V", type, format, 'R');
    cell(0, col, value1), cell(1, col, value2);
  };
  // The sum of two cells is a digit longer than each, and wraps where its type does.
  add(0, kDouble, "%.0f", 5.0, 5.0), add(1, kFloat, "%.0f", 5.0F, 5.0F), add(2, kInt32, "%d", 5, 5);
  add(3, kInt64, "%lld", int64_t{5}, int64_t{5}), add(4, kText, "%s", "5", "5"), add(5, kUnknown, "%d", 55, 55);
  add(6, kInt32, "%d", INT32_MAX, 1), add(7, kInt64, "%lld", INT64_MAX, int64_t{1});
  cell(0, 2, 123456), drawn(), cell(0, 2, 5);  // widths follow the cells down too
  const std::string dashes = " --  --  --  --  -  -  -----------  -------------------- ";
  EXPECT_EQ(drawn().substr(dashes.size() + 1, dashes.size()), dashes);
}

TEST_F(TextTable, CutsLongTextsAndCountsThemWhole) {
  const std::string longText = of(150, 'x'), cut = of(99, 'x'), stars = of(3 * 152, '*') + "\n";
  ZuTable_SetCaption(table_, longText.c_str());
  column(0, longText, kText, "%s", 'L'), column(1, "", kText, "%s", 'R'), column(2, "", kText, "%s", '?');
  for (const int32_t col : {0, 1, 2}) cell(0, col, longText.c_str());
  const std::string dashes = " " + of(150, '-') + " ";
  EXPECT_EQ(drawn(), stars + of(178) + cut + "\n" + stars + of(26) + cut + of(27 + 2 * 152) + "\n" + dashes + dashes +
                         dashes + "\n" + cut + of(2 + 2) + cut + " " + cut + " \n");
  ZuTable_Clear(table_);
  column(0, "n", kInt32, "%d");
  EXPECT_EQ(drawn(), "***\n" + cut + "\n***\n n \n - \n") << "a caption wider than the table";
  column(1, "n", kInt32, "%d" + of(17, '.')), column(2, "n", kInt32, "%d" + of(18, '.'));
  EXPECT_EQ(ZuTable_GetColNum(table_), 2) << "19 characters of format fit, 20 do not";
}

TEST_F(TextTable, AnswersWithTheSlotsFormerElement) {
  EXPECT_EQ(column(1, "a", kInt32, "%d"), nullptr);
  EXPECT_NE(column(1, "b", kInt32, "%d"), nullptr);
  EXPECT_TRUE(!cell(3, 0, 1) && !cell(3, 2, 1) && !cell(3, -1, 1) && !column(-1, "", kInt32, "%d"));
  EXPECT_TRUE(ZuTable_GetColNum(table_) == 2 && ZuTable_GetRowNum(table_) == 0) << "a skipped column has no title";
  EXPECT_EQ(cell(3, 1, 1), nullptr) << "stored, where nothing was";
  void *record = cell(3, 1, 2);
  EXPECT_TRUE(record && cell(3, 1, 3) == record);
  column(0, "text", kText, "<%s>"), cell(3, 0, "x");
  EXPECT_STREQ(static_cast<char *>(ZuTable_Get(table_, 3, 0)), "<x>");
  platform::failAllocation(0);
  EXPECT_EQ(cell(4, 1, 1), nullptr);
  EXPECT_EQ(drawn(), " text  b \n ----  - \n\n\n\n <x>   3 \n\n") << "a row without memory counts, and is empty";
}

TEST_F(TextTable, IsNotDrawnWithoutATitleAndAcceptsNull) {
  ZuBuf *buffer = ZuBuf_New(1, 16, 0);
  column(0, "a", kInt32, "%d"), column(2, "c", kInt32, "%d");
  for (ZuTable *table : {table_, static_cast<ZuTable *>(nullptr)}) {
    ZuTable_SetCaption(table, "x"), ZuTable_ShowToBuf(table, buffer);
    EXPECT_EQ(ZuTable_Show(table) + static_cast<int32_t>(ZuBuf_Length(buffer)), 0);
    EXPECT_FALSE(ZuTable_SetTitle(table, 0, nullptr, kText, "%s", 'c') || ZuTable_Set(table, 0, 0, nullptr));
  }
  ZuBuf_Release(buffer);
  EXPECT_EQ(platform::takePrinted(), "");
  EXPECT_TRUE(!ZuTable_SetTitle(nullptr, 0, "a", kText, "%s", 'c') && !ZuTable_Set(nullptr, 0, 0, "a"));
  EXPECT_TRUE(!ZuTable_Get(nullptr, 0, 0) && !ZuTable_GetRowNum(nullptr) && !ZuTable_GetColNum(nullptr));
  ZuTable_Clear(nullptr), ZuTable_ClearLines(nullptr), ZuTable_Sum(nullptr), ZuTable_Release(nullptr);
}

TEST_F(TextTable, FindsCellsInAnyOrder) {
  std::mt19937 random(9);
  const auto below = [&random](int32_t limit) { return static_cast<int32_t>(random() % static_cast<uint32_t>(limit)); };
  std::map<std::pair<int32_t, int32_t>, int> model;
  for (int32_t i = 0, row = 0; i < 20000; ++i) {
    if (below(100) == 0) ZuTable_ClearLines(table_), model.clear();
    if (below(100) == 0) ZuTable_Clear(table_), model.clear();
    for (int32_t col = ZuTable_GetColNum(table_); col < 3; ++col) column(col, "", kInt32, "%d");
    row = below(4) == 0 ? below(13) - 1 : row + below(2);  // anywhere, or here, or the next one
    const int32_t col = below(3);
    const int failures = platform::failedAllocations();
    if (below(4) == 0) platform::failAllocation(below(5), below(2) != 0);
    ASSERT_EQ(cell(row, col, i) != nullptr, model.count({row, col}) != 0) << i;
    platform::failAllocation(platform::kNever);
    if (row >= 0 && platform::failedAllocations() == failures) model[{row, col}] = i;
    const std::pair<int32_t, int32_t> other = {below(14) - 1, below(5) - 1},
                                      asked = below(2) ? other : std::pair{row, col};
    const auto *value = static_cast<int *>(ZuTable_Get(table_, asked.first, asked.second));
    ASSERT_EQ(value ? *value : -1, model.count(asked) ? model[asked] : -1) << i;
  }
}

// Each is found from where the last one was: walks from the first row on would not end in time.
TEST_F(TextTable, StepsFromRowToRow) {
  constexpr int32_t kRows = 100000;
  column(0, "", kInt32, "%d");
  for (int32_t row = 0; row < kRows; ++row) cell(row, 0, row);
  for (int32_t row = 0; row < kRows; ++row) ASSERT_EQ(*static_cast<int32_t *>(ZuTable_Get(table_, row, 0)), row);
}

// ---- numbers

std::vector<double> doubles() {
  std::vector<double> values = {0,      1,      1e9,     0x1p32,  1e15,    0x1p53,       0x1p63,   0x1p64,
                                0x1p-3, 0x1p-9, 0x1p-11, 0x1p-12, DBL_MIN, DBL_TRUE_MIN, INFINITY, NAN};
  std::mt19937_64 random(1729);
  const auto below = [&random](uint64_t limit) { return static_cast<double>(random() % limit); };
  for (int i = 0; i < 60; ++i) {
    const uint64_t bits = random();
    double anyDouble;
    std::memcpy(&anyDouble, &bits, sizeof bits);
    values.push_back(anyDouble);
    values.push_back(std::ldexp(below(1ULL << 53), -static_cast<int>(below(80))));
    values.push_back(below(1000000) / 1000);
    values.push_back(below(100000) / 1024);                              // halfway, often
    values.push_back((below(20000) + 0.5) / std::pow(10.0, below(10)));  // nearly so
  }
  for (size_t i = 0, count = values.size(); i < count; ++i) {
    for (const double to : {-INFINITY, INFINITY}) values.push_back(std::nextafter(values[i], to));
  }
  for (size_t i = 0, count = values.size(); i < count; ++i) values.push_back(-values[i]);
  return values;
}

std::vector<int64_t> integers() {
  std::vector<int64_t> values = {0, INT32_MIN, INT32_MAX, UINT32_MAX, 0x100000000, INT64_MIN, INT64_MAX};
  std::mt19937_64 random(17);
  for (int i = 0; i < 64; ++i) {
    for (const uint64_t bits : {random() >> i, ~(random() >> i)}) values.push_back(static_cast<int64_t>(bits));
  }
  for (int64_t power = 1; power < INT64_MAX / 10; power *= 10) values.push_back(power), values.push_back(power - 1);
  return values;
}

// Expects of each number the text that printf prints, and returns how many are left to it.
template <typename Value, typename Number, typename... Rounding>
size_t leftToPrintf(const std::string &format, const std::vector<Number> &numbers, Rounding... rounding) {
  size_t left = 0;
  for (const Number number : numbers) {
    const auto value = static_cast<Value>(number);
    char text[kLongestNumber], expected[400];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int length = std::snprintf(expected, sizeof expected, format.c_str(), value);
#pragma GCC diagnostic pop
    const int32_t result = printNumber(text, format.c_str(), value, rounding...);
    left += result == kNotPrinted;
    EXPECT_TRUE(result == kNotPrinted || (result == length && std::string(text) == expected)) << format << expected;
  }
  return left;
}

TEST(TableNumbers, AreThoseOfPrintf) {
  const std::vector<int64_t> whole = integers();
  const std::vector<double> real = doubles();
  for (const char *format : {"%d", "%u"}) EXPECT_EQ(leftToPrintf<int32_t>(format, whole), 0U);
  for (const char *format : {"%i", "%5d", "%d.", "%+d", "%x"}) {
    EXPECT_EQ(leftToPrintf<int32_t>(format, whole), whole.size());
  }
  EXPECT_EQ(leftToPrintf<int64_t>("%lld", whole), 0U);
  for (const char *format : {"%llu", "%'lld", "%-30lld"}) EXPECT_EQ(leftToPrintf<int64_t>(format, whole), whole.size());

  const auto left = [](const std::string &format, const std::vector<double> &numbers) {
    return leftToPrintf<double>(format, numbers, printfRoundsToNearest());
  };
  for (char decimals = '0'; decimals <= '9'; ++decimals) {
    EXPECT_LT(left(std::string("%.") + decimals + "f", real), real.size() / 2);
  }
  for (const char *format : {"%.0f", "%.2f"}) {
    EXPECT_EQ(left(format, {0, -0.0, 1, 0.5, 0.25, 0.126, 0x1p-8, 99.95, 1e9}), 0U);
  }
  for (const char *format : {"%f", "%.f", "%.10f", "%.02f", "%9.2f", "%.2e", "%.2fs"}) {
    EXPECT_EQ(left(format, real), real.size());
  }
  for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    std::fesetround(mode);
    left("%.1f", real), left("%.0f", real);
    std::fesetround(FE_TONEAREST);
  }
  pointIsForeign = true;
  EXPECT_EQ(left("%.1f", real), real.size());
  EXPECT_LT(left("%.0f", real), real.size() / 2) << "has no point";
  pointIsForeign = false;
}

}  // namespace
