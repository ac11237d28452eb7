/* ZuPrint.h: the sink through which diagnostic text leaves the library.
 *
 * A print object gathers characters in a buffer of its caller and hands whole buffers to VRK_RawPrint; with its print
 * flag at 0 it only gathers, as a string builder. One shared object over 1000 bytes carries the library's lines.
 * Every function accepts a NULL object or text and then does nothing.
 *
 * With a lock (Kep_SetLock) any thread may print through the shared object, which hands out copies: VRK_RawPrint is
 * called without the lock, so the order of the texts of different threads is not certain. A text that ends its line and
 * is given in one call, line end included, of at most 999 bytes leaves in one VRK_RawPrint, with what was held or
 * after it; one without a line end may be joined by another thread's. Other objects are the host's: one thread at a
 * time. */
#ifndef KEP_ZUPRINT_H
#define KEP_ZUPRINT_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZuPrint ZuPrint; /* a print object, known by its address only */

/* Creates an object, printing, over `capacity` bytes that stay the caller's and must outlive it. It holds at most
 * capacity - 1 characters. Returns NULL when memory is short, `buffer` is NULL or `capacity` is below 2. */
KEP_API ZuPrint *ZuPrint_New(char *buffer, int32_t capacity);

/* Non-zero: a full or flushed buffer is printed (the default). 0: text stays in the buffer, and a buffer that
 * overflows loses what it held and fills again from the start. */
KEP_API void ZuPrint_SetPrint(ZuPrint *obj, int32_t flag);

/* Appends a character or a text `count` times; a count of 0 or less appends nothing. The buffer is terminated
 * when it is created, printed or overflows; whoever builds a string terminates it. A text that does not fit even an
 * empty buffer is printed directly, or lost when the object does not print. */
KEP_API void ZuPrint_PrintCh(ZuPrint *obj, char ch, int32_t count);
KEP_API void ZuPrint_Print(ZuPrint *obj, const char *text, int32_t count);

/* Prints and empties the buffer; does nothing while the print flag is 0. */
KEP_API void ZuPrint_Flush(ZuPrint *obj);

/* Flushes and frees the object, not its buffer. */
KEP_API void ZuPrint_Release(ZuPrint *obj);

/* Prints `len` characters through the shared object (0: the text's length, negative: nothing). Each newline flushes,
 * with a lock only the last one of a text that leaves whole; text after the last one waits for the next, for a full
 * buffer of 1000 bytes, or for ZuPrint_ShowEx. */
KEP_API void ZuPrint_Show(const char *text, int32_t len);

/* As ZuPrint_Show, then flushes. */
KEP_API void ZuPrint_ShowEx(const char *text, int32_t len);

/* As ZuPrint_Show of the text and a newline. */
KEP_API void ZuPrint_Puts(const char *text, int32_t len);

#ifdef __cplusplus
}
#endif

#endif
