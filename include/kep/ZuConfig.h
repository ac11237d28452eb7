/* ZuConfig.h: asks a configuration server on the local network for one value.
 *
 * The query is the text "=>config SECTION KEY DEFAULT" in one datagram, sent from UDP port 8998; the reply is the value
 * as text, at most 1000 bytes. The first query is broadcast to port 8999; whoever answered last, be it with an empty
 * text, is asked next. When the first query is not answered within a second, or cannot be sent, or the port cannot be
 * had, no further query is ever sent. A query is at most 1000 bytes; a longer one is not sent, gives the default and
 * spends nothing. Nothing ties a reply to its query: one that comes too late is taken for the answer to the next. Query
 * from one thread at a time. The socket stays open for the life of the process, and is closed in programs that it
 * executes.
 */
#ifndef KEP_ZUCONFIG_H
#define KEP_ZUCONFIG_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Asks for a value and returns the reply's length; 0 or less when there is none, or it is empty, or a text is NULL. The
 * functions below hand the reply out. */
KEP_API int32_t ZuConfig_Get(const char *section, const char *key, const char *defaultText);

/* Copies the value, or without a reply the default, to `out`, which has room for 1001 bytes and the default. Returns 1.
 */
KEP_API int32_t ZuConfig_GetString(const char *section, const char *key, const char *defaultText, char *out);

/* Returns the value as a number, 0 when it is none ("0x" and a leading 0 begin hexadecimal and octal numbers, and of
 * large ones the low 32 bits are taken), or without a reply the default. */
KEP_API int32_t ZuConfig_GetInt(const char *section, const char *key, int32_t defaultValue);
KEP_API uint32_t ZuConfig_GetUInt(const char *section, const char *key, uint32_t defaultValue);

#ifdef __cplusplus
}
#endif

#endif
