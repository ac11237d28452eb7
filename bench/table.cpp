// table.cpp: text tables, built and drawn, beside a table of the same three columns written by hand.
//
// The peer, libsmartcols, keeps texts: it adds nothing up, formats nothing, and writes into memory of its own. Built
// with it, a table is given texts that snprintf has made.
#include <kep/ZuBuf.h>
#include <kep/ZuTable.h>

#ifdef KEP_BENCH_HAVE_SMARTCOLS
#include <libsmartcols.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench.hpp"

namespace {

constexpr int32_t kColumns = 3;
constexpr uint32_t kTextSize = 2U << 20;  // more than any table here

const char *const names[] = {"eth0", "temperature", "fan-2", "supply 12 V"};

struct Values {
  const char *name;
  int32_t count;
  double load;
};

Values valuesOf(int32_t row) {
  const auto mixed = static_cast<uint32_t>(row) * 2654435761U;
  return {names[row % 4], static_cast<int32_t>(mixed % 100000), mixed % 10000 / 7.0};
}

// ---- kep

ZuTable *makeTable(int32_t rows) {
  ZuTable *table = ZuTable_New();
  ZuTable_SetTitle(table, 0, "Name", 4, "%s", 'L');
  ZuTable_SetTitle(table, 1, "Count", 2, "%d", 'R');
  ZuTable_SetTitle(table, 2, "Load", 0, "%.2f", 'R');
  for (int32_t row = 0; row < rows; ++row) {
    const Values values = valuesOf(row);
    ZuTable_Set(table, row, 0, values.name);
    ZuTable_Set(table, row, 1, &values.count);
    ZuTable_Set(table, row, 2, &values.load);
  }
  return table;
}

std::string drawn(ZuTable *table, ZuBuf *buf) {
  ZuTable_ShowToBuf(table, buf);
  void *text = nullptr;
  ZuBuf_Get(buf, 0, &text);
  std::string copy(static_cast<char *>(text), ZuBuf_Length(buf));
  ZuBuf_Clear(buf);
  return copy;
}

Side kepDraw(int32_t rows) {
  return [rows](Run &run) {
    ZuTable *table = makeTable(rows);
    ZuBuf *buf = ZuBuf_New(1, kTextSize, 0);
    run.time([&] {
      ZuTable_ShowToBuf(table, buf);
      ZuBuf_Clear(buf);
    });
    ZuBuf_Release(buf);
    ZuTable_Release(table);
  };
}

Side kepBuild(int32_t rows) {
  return [rows](Run &run) {
    ZuBuf *buf = ZuBuf_New(1, kTextSize, 0);
    run.time([&] {
      ZuTable *table = makeTable(rows);
      ZuTable_ShowToBuf(table, buf);
      ZuBuf_Clear(buf);
      ZuTable_Release(table);
    });
    ZuBuf_Release(buf);
  };
}

// ---- by hand: cells in one vector, drawn into a string

enum Type { kDouble, kInt, kText };

struct Column {
  const char *name;
  Type type;
  const char *format;
  size_t width;
  double sum;
  uint32_t intSum;
};

struct Cell {
  char text[100];
  size_t length;
  double number;
  int32_t integer;
};

struct PlainTable {
  Column columns[kColumns] = {
      {"Name", kText, "%s", 0, 0, 0}, {"Count", kInt, "%d", 0, 0, 0}, {"Load", kDouble, "%.2f", 0, 0, 0}};
  std::vector<Cell> cells;
};

template <typename Value>
size_t print(char (&text)[100], const char *format, Value value) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  return static_cast<size_t>(std::snprintf(text, sizeof text, format, value));
#pragma GCC diagnostic pop
}

CALLED void setPlainly(PlainTable &table, size_t row, size_t col, const void *value) {
  if (table.cells.size() < (row + 1) * kColumns) table.cells.resize((row + 1) * kColumns);
  Cell &cell = table.cells[row * kColumns + col];
  const Column &column = table.columns[col];
  if (column.type == kDouble) std::memcpy(&cell.number, value, sizeof cell.number);
  if (column.type == kInt) std::memcpy(&cell.integer, value, sizeof cell.integer);
  if (column.type == kText) cell.length = print(cell.text, column.format, static_cast<const char *>(value));
}

void sumPlainly(Column &column, Cell &cell) {
  if (column.type == kDouble) {
    cell.length = print(cell.text, column.format, cell.number);
    column.sum += cell.number;
  } else if (column.type == kInt) {
    cell.length = print(cell.text, column.format, cell.integer);
    column.intSum += static_cast<uint32_t>(cell.integer);
  }
  if (column.width < cell.length + 2) column.width = cell.length + 2;
}

// Makes the widths, and returns their sum.
size_t sumPlainly(PlainTable &table) {
  for (Column &column : table.columns) {
    column.width = std::strlen(column.name) + 2;
    column.sum = column.intSum = 0;
  }
  for (size_t i = 0; i < table.cells.size(); ++i) sumPlainly(table.columns[i % kColumns], table.cells[i]);
  size_t total = 0;
  for (Column &column : table.columns) {
    Cell sum = {};
    sum.number = column.sum;
    sum.integer = static_cast<int32_t>(column.intSum);
    sumPlainly(column, sum);
    total += column.width;
  }
  return total;
}

CALLED void drawPlainly(PlainTable &table, std::string &out) {
  const size_t width = sumPlainly(table);
  for (const Column &column : table.columns) {
    const size_t margin = column.width - std::strlen(column.name);
    out.append(margin / 2, ' ').append(column.name).append((margin + 1) / 2, ' ');
  }
  out += '\n';
  for (const Column &column : table.columns) out.append(" ").append(column.width - 2, '-').append(" ");
  out += '\n';
  for (size_t i = 0; i < table.cells.size(); ++i) {
    const Column &column = table.columns[i % kColumns];
    const Cell &cell = table.cells[i];
    if (column.type != kText) out.append(column.width - cell.length, ' ');
    out.append(cell.text, cell.length);
    if (column.type == kText) out.append(column.width - cell.length, ' ');
    if (i % kColumns == kColumns - 1) out += '\n';
  }
  char footer[100];
  std::snprintf(footer, sizeof footer, "total count = %d", static_cast<int>(table.cells.size() / kColumns));
  out.append(width, '-').append("\n").append(footer).append("\n").append(width, '-').append("\n");
}

void fillPlainly(PlainTable &table, int32_t rows) {
  for (int32_t row = 0; row < rows; ++row) {
    const Values values = valuesOf(row);
    setPlainly(table, static_cast<size_t>(row), 0, values.name);
    setPlainly(table, static_cast<size_t>(row), 1, &values.count);
    setPlainly(table, static_cast<size_t>(row), 2, &values.load);
  }
}

// As ZuBuf_Clear does.
void wipe(std::string &text) {
  std::memset(text.data(), 0, text.size());
  text.clear();
}

// What draws something else would be no limit.
void requireSameText(const std::string &text, int32_t rows) {
  ZuTable *table = makeTable(rows);
  ZuBuf *buf = ZuBuf_New(1, kTextSize, 0);
  if (drawn(table, buf) != text) std::abort();
  ZuBuf_Release(buf);
  ZuTable_Release(table);
}

Side plainDraw(int32_t rows) {
  return [rows](Run &run) {
    PlainTable table;
    fillPlainly(table, rows);
    std::string out;
    out.reserve(kTextSize);
    drawPlainly(table, out);
    requireSameText(out, rows);
    wipe(out);
    run.time([&] {
      drawPlainly(table, out);
      wipe(out);
    });
  };
}

Side plainBuild(int32_t rows) {
  return [rows](Run &run) {
    std::string out;
    out.reserve(kTextSize);
    run.time([&] {
      PlainTable table;
      fillPlainly(table, rows);
      drawPlainly(table, out);
      wipe(out);
    });
  };
}

// ---- rows

const Row built[] = {
    {"text table built and drawn, a cell: 10 rows", 10 * kColumns, kepBuild(10), plainBuild(10), {1.75, 0.33}},
    {"text table built and drawn, a cell: 1,000 rows", 1000 * kColumns, kepBuild(1000), plainBuild(1000), {1.75, 0.33}},
    {"text table built and drawn, a cell: 10,000 rows",
     10000 * kColumns,
     kepBuild(10000),
     plainBuild(10000),
     {1.75, 0.33}}};
const Row drawnRows[] = {
    {"text table drawn, a cell: 10 rows", 10 * kColumns, kepDraw(10), plainDraw(10), {1.2, 0.18}},
    {"text table drawn, a cell: 1,000 rows", 1000 * kColumns, kepDraw(1000), plainDraw(1000), {1.2, 0.18}},
    {"text table drawn, a cell: 10,000 rows", 10000 * kColumns, kepDraw(10000), plainDraw(10000), {1.2, 0.18}}};

const Row builtGrowth("text table built and drawn, a cell: 10,000 rows over 10", 10000 * kColumns, kepBuild(10000),
                      nullptr, {0, 1.35});
const Peer built10(builtGrowth, "kep, 10 rows", kepBuild(10), 10 * kColumns);
const Row drawnGrowth("text table drawn, a cell: 10,000 rows over 10", 10000 * kColumns, kepDraw(10000), nullptr,
                      {0, 1.25});
const Peer drawn10(drawnGrowth, "kep, 10 rows", kepDraw(10), 10 * kColumns);

#ifdef KEP_BENCH_HAVE_SMARTCOLS
libscols_table *makeScolsTable(int32_t rows) {
  libscols_table *table = scols_new_table();
  scols_table_new_column(table, "Name", 0, 0);
  scols_table_new_column(table, "Count", 0, SCOLS_FL_RIGHT);
  scols_table_new_column(table, "Load", 0, SCOLS_FL_RIGHT);
  for (int32_t row = 0; row < rows; ++row) {
    const Values values = valuesOf(row);
    libscols_line *line = scols_table_new_line(table, nullptr);
    char text[100];
    scols_line_set_data(line, 0, values.name);
    print(text, "%d", values.count);
    scols_line_set_data(line, 1, text);
    print(text, "%.2f", values.load);
    scols_line_set_data(line, 2, text);
  }
  return table;
}

void drawScolsTable(libscols_table *table) {
  char *text = nullptr;
  scols_print_table_to_string(table, &text);
  std::free(text);
}

Side scolsDraw(int32_t rows) {
  return [rows](Run &run) {
    libscols_table *table = makeScolsTable(rows);
    run.time([&] { drawScolsTable(table); });
    scols_unref_table(table);
  };
}

Side scolsBuild(int32_t rows) {
  return [rows](Run &run) {
    run.time([&] {
      libscols_table *table = makeScolsTable(rows);
      drawScolsTable(table);
      scols_unref_table(table);
    });
  };
}

const Peer scols[] = {
    {built[0], "libsmartcols", scolsBuild(10)},      {built[1], "libsmartcols", scolsBuild(1000)},
    {built[2], "libsmartcols", scolsBuild(10000)},   {drawnRows[0], "libsmartcols", scolsDraw(10)},
    {drawnRows[1], "libsmartcols", scolsDraw(1000)}, {drawnRows[2], "libsmartcols", scolsDraw(10000)}};
#endif

}  // namespace
