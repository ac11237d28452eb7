// ZuTable.cpp: the model of a text table, its sums and widths, and its drawing.
//
// Columns, rows and the cells of a row are lists by index; a NULL element is a column without title, an empty row or a
// missing cell. Positions are found by walking, and rows may be many: passes over the table walk each list once, and
// a row is looked for from where the last one was, a cell of that row likewise. Columns are few.
#include "kep/ZuTable.h"

#include <cstring>

#include "ZuBuf.hpp"
#include "ZuList.hpp"
#include "ZuMem.hpp"
#include "ZuPrint.hpp"
#include "kep/platform.h"
#include "numbers.hpp"

struct ZuTable {
  char caption[100];
  ZuList *columns;
  ZuList *rows;
  // Where the last row was found, and the last cell in that row; forgotten when they go.
  ListPlace lastRow;
  ListPlace lastCell;
};
static_assert(sizeof(void *) != 4 || sizeof(ZuTable) == 108 + 16, "the board's record, and what is remembered");

namespace {

// 8-byte values lie 4-byte aligned in these records, so they are copied in and out.
struct ZuTableColumn {
  char name[100];
  int32_t nameLen;
  int32_t type;
  char align;
  char sumText[100];  // decides on the width only
  char format[20];
  uint32_t sum[2];
  int32_t width;
};
static_assert(sizeof(ZuTableColumn) == 244, "the column's record");

struct ZuTableCell {
  char text[100];
  int32_t textLen;  // as the formatter reported it, even where the text was cut
  uint32_t value[2];
};
static_assert(sizeof(ZuTableCell) == 112, "the cell's record");

constexpr int32_t kLongestText = 1 << 20;  // a longer cell counts as this long, so that no width overflows

// ---- values

template <typename Value>
Value load(const uint32_t (&bytes)[2]) {
  Value value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

template <typename Value>
void store(uint32_t (&bytes)[2], Value value) {
  std::memcpy(bytes, &value, sizeof value);
}

size_t sizeOf(int32_t type) {
  switch (type) {
    case ZUTABLE_DOUBLE:
    case ZUTABLE_INT64: return 8;
    case ZUTABLE_FLOAT:
    case ZUTABLE_INT32: return 4;
    default: return 0;
  }
}

template <typename Value>
int32_t print(char (&text)[100], const char *format, Value value) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the column's format is the host's
  const int32_t length = PLM_snprintf(text, sizeof text, format, value);
#pragma GCC diagnostic pop
  return length < kLongestText ? length : kLongestText;
}

// Most columns of numbers have a plain format, for which printf takes many times as long.
template <typename Number, typename... Rounding>
int32_t printNumeric(char (&text)[100], const char *format, Number number, Rounding... rounding) {
  static_assert(sizeof text >= kLongestNumber, "no plain number is cut");
  const int32_t length = printNumber(text, format, number, rounding...);
  return length != kNotPrinted ? length : print(text, format, number);
}

// Formats a value of 8 bytes as its type says. A number is passed as what the format of its type expects.
int32_t printValue(char (&text)[100], const ZuTableColumn *column, const uint32_t (&value)[2], bool toNearest) {
  switch (column->type) {
    case ZUTABLE_DOUBLE: return printNumeric(text, column->format, load<double>(value), toNearest);
    case ZUTABLE_FLOAT: return printNumeric(text, column->format, static_cast<double>(load<float>(value)), toNearest);
    case ZUTABLE_INT32: return printNumeric(text, column->format, load<int32_t>(value));
    case ZUTABLE_INT64: return printNumeric(text, column->format, load<int64_t>(value));
    default: text[0] = '\0'; return 0;
  }
}

// Integers are added unsigned, so that they wrap.
void addToSum(ZuTableColumn *column, const ZuTableCell *cell) {
  switch (column->type) {
    case ZUTABLE_DOUBLE: store(column->sum, load<double>(column->sum) + load<double>(cell->value)); break;
    case ZUTABLE_FLOAT: store(column->sum, load<float>(column->sum) + load<float>(cell->value)); break;
    case ZUTABLE_INT32: store(column->sum, load<uint32_t>(column->sum) + load<uint32_t>(cell->value)); break;
    case ZUTABLE_INT64: store(column->sum, load<uint64_t>(column->sum) + load<uint64_t>(cell->value)); break;
    default: break;
  }
}

// ---- the model

int32_t copyCut(char *field, size_t size, const char *text) {
  const size_t length = strnlen(text, size - 1);
  std::memset(field, 0, size);
  std::memcpy(field, text, length);
  return static_cast<int32_t>(length);
}

void releaseRow(void *row) { ZuList_Release(static_cast<ZuList *>(row)); }

template <typename Element>
Element *elementAt(ZuList *list, int32_t index) {
  return static_cast<Element *>(index < 0 ? nullptr : ZuList_Get(list, index));
}

template <typename Record>
Record *makeRecord() {
  void *record = takeLocal(sizeof(Record));
  if (record) std::memset(record, 0, sizeof(Record));
  return static_cast<Record *>(record);
}

// The element of a list at an index, made and stored there when there is none; NULL when that fails.
template <typename Record>
Record *obtain(ZuList *list, ListPlace *place, int32_t index, bool *isNew) {
  ZuListNode *node = walkTo(list, place, index);
  *isNew = !node || !node->data;
  if (!*isNew) return static_cast<Record *>(node->data);
  if (index < 0) return nullptr;
  auto *record = makeRecord<Record>();
  node = record ? extendTo(list, place, index) : nullptr;
  if (node) {
    node->data = record;
    return record;
  }
  giveLocal(record);
  return nullptr;
}

void forgetPlaces(ZuTable *table) { table->lastRow = table->lastCell = {nullptr, 0}; }

// The node of a row, which becomes the last one found; NULL when the table ends before it.
ZuListNode *findRow(ZuTable *table, int32_t row) {
  if (row != table->lastRow.index) table->lastCell = {nullptr, 0};  // it lies in another row
  return walkTo(table->rows, &table->lastRow, row);
}

ZuList *obtainRow(ZuTable *table, int32_t row) {
  if (row < 0) return nullptr;
  ZuListNode *node = findRow(table, row);
  if (node && node->data) return static_cast<ZuList *>(node->data);
  ZuList *cells = ZuList_New(0, giveLocal);
  node = extendTo(table->rows, &table->lastRow, row);  // without a list too: the row then counts, and is empty
  if (node) {
    node->data = cells;
    return cells;
  }
  ZuList_Release(cells);
  return nullptr;
}

void setCell(ZuTableCell *cell, const ZuTableColumn *column, const void *arg) {
  if (column->type == ZUTABLE_TEXT) {
    cell->textLen = print(cell->text, column->format, static_cast<const char *>(arg));
  } else {
    std::memcpy(cell->value, arg, sizeOf(column->type));
  }
}

// ---- sums and widths

void widen(ZuTableColumn *column, int32_t textLength) {
  if (textLength + 2 > column->width) column->width = textLength + 2;
}

void sumCell(ZuTableColumn *column, ZuTableCell *cell, bool toNearest) {
  if (column->type != ZUTABLE_TEXT) cell->textLen = printValue(cell->text, column, cell->value, toNearest);
  addToSum(column, cell);
  widen(column, cell->textLen);
}

void sumRow(const ZuList *columns, const ZuList *row, bool toNearest) {
  ListWalk<ZuTableColumn> columnWalk(columns);
  ListWalk<ZuTableCell> cellWalk(row);
  ZuTableColumn *column;
  ZuTableCell *cell;
  while (columnWalk.next(&column) && cellWalk.next(&cell)) {
    if (column && cell) sumCell(column, cell, toNearest);
  }
}

// ---- drawing

// Where a table is drawn to: a print object, which has each line flushed, so that a console shows it, or a buffer.
class Canvas {
 public:
  explicit Canvas(ZuPrint *print) : print_(print), buf_(nullptr) {}
  explicit Canvas(ZuBuf *buf) : print_(nullptr), buf_(buf) {}

  void chars(char ch, int32_t count) {
    if (print_) {
      ZuPrint_PrintCh(print_, ch, count);
    } else if (count > 0) {
      appendRun(buf_, ch, static_cast<uint32_t>(count));
    }
  }

  void text(const char *text) {
    if (print_) {
      ZuPrint_Print(print_, text, 1);
    } else {
      ZuBuf_Append(buf_, text, 0);
    }
  }

  void newline() {
    chars('\n', 1);
    ZuPrint_Flush(print_);
  }

 private:
  ZuPrint *print_;
  ZuBuf *buf_;
};

// The sum of the widths; false when a column has no title and the table cannot be drawn.
bool totalWidth(const ZuTable *table, int32_t *out) {
  int64_t total = 0;
  ZuTableColumn *column;
  for (ListWalk<ZuTableColumn> walk(table->columns); walk.next(&column); total += column->width) {
    if (!column) return false;
  }
  *out = static_cast<int32_t>(total < INT32_MAX ? total : INT32_MAX);
  return true;
}

void drawText(Canvas &canvas, const char *text, int32_t margin, char align) {
  int32_t left = margin / 2;
  int32_t right = (margin + 1) / 2;
  if ((align | 0x20) == 'r') left = margin, right = 0;
  if ((align | 0x20) == 'l') left = 0, right = margin;
  canvas.chars(' ', left);
  canvas.text(text);
  canvas.chars(' ', right);
}

void drawCaption(Canvas &canvas, const ZuTable *table, int32_t width) {
  if (!*table->caption) return;
  canvas.chars('*', width);
  canvas.newline();
  canvas.chars(' ', (width - static_cast<int32_t>(std::strlen(table->caption))) / 2);
  canvas.text(table->caption);
  canvas.newline();
  canvas.chars('*', width);
  canvas.newline();
}

void drawTitles(Canvas &canvas, const ZuTable *table) {
  ZuTableColumn *column;
  for (ListWalk<ZuTableColumn> walk(table->columns); walk.next(&column);) {
    drawText(canvas, column->name, column->width - column->nameLen, 'c');
  }
  canvas.newline();
  for (ListWalk<ZuTableColumn> walk(table->columns); walk.next(&column);) {
    canvas.chars(' ', 1);
    canvas.chars('-', column->width - 2);
    canvas.chars(' ', 1);
  }
  canvas.newline();
}

void drawCell(Canvas &canvas, const ZuTableColumn *column, const ZuTableCell *cell) {
  if (!cell) return canvas.chars(' ', column->width);
  drawText(canvas, cell->text, column->width - cell->textLen, column->align);
}

void drawRows(Canvas &canvas, const ZuTable *table) {
  ZuList *row;
  for (ListWalk<ZuList> rows(table->rows); rows.next(&row);) {
    ListWalk<ZuTableCell> cells(row);
    ZuTableColumn *column;
    for (ListWalk<ZuTableColumn> columns(table->columns); row && columns.next(&column);) {
      ZuTableCell *cell;
      drawCell(canvas, column, cells.next(&cell) ? cell : nullptr);
    }
    canvas.newline();
  }
}

void drawBody(Canvas &canvas, const ZuTable *table, int32_t width) {
  drawCaption(canvas, table, width);
  drawTitles(canvas, table);
  drawRows(canvas, table);
}

void drawFooter(Canvas &canvas, const ZuTable *table, int32_t width) {
  char count[100];
  PLM_snprintf(count, sizeof count, "total count = %d", static_cast<int>(ZuTable_GetRowNum(table)));
  canvas.chars('-', width);
  canvas.newline();
  canvas.text(count);
  canvas.newline();
  canvas.chars('-', width);
  canvas.newline();
}

}  // namespace

ZuTable *ZuTable_New(void) {
  auto *table = makeRecord<ZuTable>();
  if (!table) return nullptr;
  table->columns = ZuList_New(0, giveLocal);
  table->rows = ZuList_New(0, releaseRow);
  if (table->columns && table->rows) return table;
  ZuTable_Release(table);
  return nullptr;
}

void ZuTable_Clear(ZuTable *table) {
  if (!table) return;
  forgetPlaces(table);
  ZuList_RemoveAll(table->rows);
  ZuList_RemoveAll(table->columns);
}

void ZuTable_Release(ZuTable *table) {
  if (!table) return;
  ZuList_Release(table->rows);
  ZuList_Release(table->columns);
  giveLocal(table);
}

void ZuTable_ClearLines(ZuTable *table) {
  if (!table) return;
  forgetPlaces(table);
  ZuListNode *node = table->rows->head;
  for (int32_t i = 0; i < table->rows->count; ++i, node = node->next) {
    releaseRow(node->data);
    node->data = nullptr;
  }
}

int32_t ZuTable_GetRowNum(const ZuTable *table) { return table ? table->rows->count : 0; }

int32_t ZuTable_GetColNum(const ZuTable *table) { return table ? table->columns->count : 0; }

void ZuTable_SetCaption(ZuTable *table, const char *text) {
  if (table && text) copyCut(table->caption, sizeof table->caption, text);
}

void *ZuTable_SetTitle(ZuTable *table, int32_t col, const char *name, int32_t type, const char *format, char align) {
  // A format that does not fit is refused: cut in the middle of a conversion it would ask for another value.
  if (!table || !name || !format || std::strlen(format) >= sizeof(ZuTableColumn::format)) return nullptr;
  ListPlace place = {nullptr, 0};
  bool isNew;
  auto *column = obtain<ZuTableColumn>(table->columns, &place, col, &isNew);
  if (!column) return nullptr;
  column->nameLen = copyCut(column->name, sizeof column->name, name);
  column->type = type;
  copyCut(column->format, sizeof column->format, format);
  column->align = align;
  column->width = 0;
  std::memset(column->sum, 0, sizeof column->sum);
  return isNew ? nullptr : column;
}

void *ZuTable_Set(ZuTable *table, int32_t row, int32_t col, const void *arg) {
  if (!table || !arg) return nullptr;
  const auto *column = elementAt<ZuTableColumn>(table->columns, col);
  ZuList *cells = column ? obtainRow(table, row) : nullptr;
  if (!cells) return nullptr;
  bool isNew;
  auto *cell = obtain<ZuTableCell>(cells, &table->lastCell, col, &isNew);
  if (!cell) return nullptr;
  setCell(cell, column, arg);
  return isNew ? nullptr : cell;
}

void *ZuTable_Get(ZuTable *table, int32_t row, int32_t col) {
  if (!table) return nullptr;
  const auto *column = elementAt<ZuTableColumn>(table->columns, col);
  const ZuListNode *rowNode = findRow(table, row);
  if (!column || !rowNode || !rowNode->data) return nullptr;
  const ZuListNode *cellNode = walkTo(static_cast<ZuList *>(rowNode->data), &table->lastCell, col);
  auto *cell = cellNode ? static_cast<ZuTableCell *>(cellNode->data) : nullptr;
  if (!cell) return nullptr;
  return column->type == ZUTABLE_TEXT ? static_cast<void *>(cell->text) : cell->value;
}

void ZuTable_Sum(ZuTable *table) {
  if (!table) return;
  ZuTableColumn *column;
  for (ListWalk<ZuTableColumn> walk(table->columns); walk.next(&column);) {
    if (!column) continue;
    std::memset(column->sum, 0, sizeof column->sum);
    column->width = column->nameLen + 2;
  }
  const bool toNearest = printfRoundsToNearest();
  ZuList *row;
  for (ListWalk<ZuList> rows(table->rows); rows.next(&row);) sumRow(table->columns, row, toNearest);
  for (ListWalk<ZuTableColumn> walk(table->columns); walk.next(&column);) {
    if (column) widen(column, printValue(column->sumText, column, column->sum, toNearest));
  }
}

int32_t ZuTable_ShowToBuffer(ZuTable *table, char *buf, int32_t size) {
  if (!table) return 0;
  ZuTable_Sum(table);
  const bool toBuffer = buf && size != 0;
  char line[400];
  ZuPrint *print = toBuffer ? ZuPrint_New(buf, size) : ZuPrint_New(line, sizeof line);
  if (!print) return 0;
  ZuPrint_SetPrint(print, !toBuffer);
  int32_t width;
  if (!totalWidth(table, &width)) {
    ZuPrint_Release(print);
    return 0;
  }
  Canvas canvas(print);
  drawBody(canvas, table, width);
  if (!toBuffer) drawFooter(canvas, table, width);
  const int32_t held = printLength(print);  // nothing, when every line has been printed
  ZuPrint_Release(print);
  return held;
}

int32_t ZuTable_Show(ZuTable *table) { return ZuTable_ShowToBuffer(table, nullptr, 0); }

void ZuTable_ShowToBuf(ZuTable *table, ZuBuf *buf) {
  if (!table) return;
  if (!isAddress(buf)) {
    ZuTable_Show(table);
    return;
  }
  if (!holdsBytes(buf)) return;
  ZuTable_Sum(table);
  int32_t width;
  if (!totalWidth(table, &width)) return;
  Canvas canvas(buf);
  drawBody(canvas, table, width);
  drawFooter(canvas, table, width);
}
