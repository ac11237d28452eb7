/* ZuString.h: text formatting, hex dumps and splitting.
 *
 * The two functions with an S in front of Format return a static buffer that the next call overwrites: use the result
 * at once, from one thread. With a lock (Kep_SetLock) any thread may call them: each has buffers of its own, tracked
 * memory of id 0 that is taken at the first use and given back when the thread ends; when memory is short they return
 * an empty text, not to be written to. The others work on the caller's memory alone, from any thread. */
#ifndef KEP_ZUSTRING_H
#define KEP_ZUSTRING_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Formats into the buffer of 1000 bytes and returns it; longer text is cut at 999 characters. A NULL format gives
 * an empty text. */
KEP_API char *ZuString_SFormat(const char *format, ...) KEP_PRINTF(1, 2);

/* Formats into `dst` and returns it. The caller makes `dst` large enough: nothing is cut. A NULL format gives an empty
 * text; a NULL `dst` is returned untouched. */
KEP_API char *ZuString_Format(char *dst, const char *format, ...) KEP_PRINTF(2, 3);

/* Writes `len` bytes as "%02X " each, a newline after every 16th that others follow, and returns `dst`, which holds
 * 3 * len + (len - 1) / 16 + 1 bytes. A `len` below 1 or NULL data gives an empty text. */
KEP_API char *ZuString_HFormat(char *dst, const void *data, int32_t len);

/* The same into the buffer of 10000 bytes; bytes beyond the 3265th are left out. */
KEP_API char *ZuString_SHFormat(const void *data, int32_t len);

/* Cuts `text` in place at each delimiter and stores where the fields begin. `max_fields` 0: no limit; otherwise the
 * last field keeps the rest. `fields` has room for the fields counted. Returns their number, at least 1; 0 for a NULL
 * argument. The character after a delimiter is never taken as the start of the next one, so "a,,b" has the fields
 * "a" and ",b"; an empty field at the end is counted but its slot is not written. */
KEP_API int32_t ZuString_Split(char *text, const char *delimiter, char **fields, int32_t max_fields);

/* Present for the interface's sake: they leave the text as it is. */
KEP_API void ZuString_LTrim(char *text);
KEP_API void ZuString_RTrim(char *text);
KEP_API void ZuString_Trim(char *text);

#ifdef __cplusplus
}
#endif

#endif
