/* ZuTable.h: a small report table: a caption, typed and titled columns, rows of cells, drawn as fixed-width text.
 *
 *   type                a cell is set from   and drawn by the column's format as
 *   0  ZUTABLE_DOUBLE   a double *           a double
 *   1  ZUTABLE_FLOAT    a float *            a float, promoted
 *   2  ZUTABLE_INT32    an int32_t *         a 32-bit integer
 *   3  ZUTABLE_INT64    an int64_t *         a 64-bit integer
 *   4  ZUTABLE_TEXT     a text               that text, formatted when it is set
 *
 * Other type codes store nothing and draw empty cells. Formats are printf formats for one value of the column's type;
 * the caller keeps the two in step. Texts of cells are cut at 99 bytes, but count for the widths as long as they would
 * have been, up to 1 MiB. Rows and columns count from 0 and may be set in any order; a negative one does nothing. A row
 * is looked for from the last one on: row by row, or column by column, each row is a step away, in any other order a
 * walk, and so is a column. Reading a cell remembers its place, too, so that not even two threads that only read may
 * share a table. Every function accepts a NULL table. A table belongs to one thread at a time; with a lock
 * (Kep_SetLock) the memory under it is accounted for safely. */
#ifndef KEP_ZUTABLE_H
#define KEP_ZUTABLE_H

#include <stdint.h>

#include "kep/ZuBuf.h"
#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZuTable ZuTable; /* a table, known by its address only */

/* Types of columns. */
enum { ZUTABLE_DOUBLE = 0, ZUTABLE_FLOAT = 1, ZUTABLE_INT32 = 2, ZUTABLE_INT64 = 3, ZUTABLE_TEXT = 4 };

/* Creates an empty table. Returns NULL when memory is short. */
KEP_API ZuTable *ZuTable_New(void);

/* Drops all rows and columns. */
KEP_API void ZuTable_Clear(ZuTable *table);

/* Frees the table. */
KEP_API void ZuTable_Release(ZuTable *table);

/* Drops what the rows hold and keeps their number: each is drawn as an empty line until it is set again. */
KEP_API void ZuTable_ClearLines(ZuTable *table);

/* Return the number of rows and of columns, skipped ones included. */
KEP_API int32_t ZuTable_GetRowNum(const ZuTable *table);
KEP_API int32_t ZuTable_GetColNum(const ZuTable *table);

/* Sets the caption, cut at 99 bytes; an empty one is not drawn. */
KEP_API void ZuTable_SetCaption(ZuTable *table, const char *text);

/* Describes a column, before its cells are set: name (cut at 99 bytes), type, format (at most 19 bytes), and 'L' or 'l'
 * for left, 'R' or 'r' for right, any other letter for centred. Returns the slot's previous record: NULL for a new
 * column, and also when nothing was set because memory is short, a text is NULL or the format too long. */
KEP_API void *ZuTable_SetTitle(ZuTable *table, int32_t col, const char *name, int32_t type, const char *format,
                               char align);

/* Sets a cell of a described column, copying from `arg`. Returns the slot's previous cell: NULL for a new cell, and
 * also when nothing was set because the column has no title, `arg` is NULL, or memory is short. */
KEP_API void *ZuTable_Set(ZuTable *table, int32_t row, int32_t col, const void *arg);

/* Returns the address of a cell's value, or of its text in a column of type 4, valid until the cell is dropped; NULL
 * when there is no such cell. */
KEP_API void *ZuTable_Get(ZuTable *table, int32_t row, int32_t col);

/* Formats the cells, adds up the columns, and makes every column 2 wider than its widest title, cell or sum; what the
 * renderers below begin with. Integer sums wrap. */
KEP_API void ZuTable_Sum(ZuTable *table);

/* Draws into `buf` of `size` bytes, without the footer and without a terminator, and returns the number of characters
 * there; text that does not fit is lost as ZuPrint_SetPrint says. Without a buffer or size it prints, footer included,
 * and returns 0. Returns 0 when a column has no title, `size` is below 2, or memory is short. */
KEP_API int32_t ZuTable_ShowToBuffer(ZuTable *table, char *buf, int32_t size);

/* Prints the table. */
KEP_API int32_t ZuTable_Show(ZuTable *table);

/* Appends the table, footer included, to `buf`; a buffer whose address is below 101, such as NULL, prints it instead.
 * Does nothing when a column has no title, or when the elements of `buf` are not bytes. What finds no memory in `buf`
 * is missing there. */
KEP_API void ZuTable_ShowToBuf(ZuTable *table, ZuBuf *buf);

#ifdef __cplusplus
}
#endif

#endif
