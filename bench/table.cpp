// table.cpp: text tables, built and drawn.
#include <kep/ZuBuf.h>
#include <kep/ZuTable.h>

#include "bench.hpp"

namespace {

constexpr int32_t kColumns = 2;

ZuTable *makeTable(int32_t rows) {
  ZuTable *table = ZuTable_New();
  ZuTable_SetTitle(table, 0, "Name", 4, "%s", 'L');
  ZuTable_SetTitle(table, 1, "Count", 2, "%d", 'R');
  for (int32_t row = 0; row < rows; ++row) {
    ZuTable_Set(table, row, 0, "a name");
    ZuTable_Set(table, row, 1, &row);
  }
  return table;
}

void kepDraw(Run &run, int32_t rows) {
  ZuTable *table = makeTable(rows);
  ZuBuf *buf = ZuBuf_New(1, 1U << 20, 0);
  run.time([&] {
    ZuTable_ShowToBuf(table, buf);
    ZuBuf_Clear(buf);
  });
  ZuBuf_Release(buf);
  ZuTable_Release(table);
}

void kepDraw10(Run &run) { kepDraw(run, 10); }
void kepDraw10000(Run &run) { kepDraw(run, 10000); }

const Row drawGrowth("text table drawn, a cell: 10,000 rows over 10", 10000 * kColumns, kepDraw10000, nullptr,
                     {0, 1.25});
const Peer draw10(drawGrowth, "kep, 10 rows", kepDraw10, 10 * kColumns);

}  // namespace
