/* ZuLogger.h: text lines as time-stamped records of a store, with an echo through the print sink.
 *
 * A logger makes its store at the first line it keeps. A kept line is two records with the same one-letter key ("w"
 * for level 2, "e" for level 3, "l" for every other): the time, then the line. The time is local and reads
 * "2026/08/31 23:59:59" for lines of ZuLogger_Write, "08/31 23:59:59" for those of ZuLogger_Append. A full store drops
 * its oldest records, so the first line shown may lack its time. Every function accepts a NULL logger or text and then
 * does nothing.
 *
 * With Kep_SetLock any thread may call these at any time, but nobody else may use a logger that is being released.
 * ZuLogger_Write, ZuLogger_Append, ZuLogger_ShowToBuf, ZuLogger_ShowInfo and ZuLogger_Dump print or pause, which they
 * do without the lock: the two records of a line stay together, while the echoes of two threads may come in another
 * order than their records. A host that holds its lock around one of these holds it across the console and the pauses.
 * Those that show or copy hand out the records that were there when they began, each whole, and end early where the
 * next one has been dropped meanwhile or memory for a copy of it is short. The buffer that they fill is the caller's
 * own. Without a lock a logger belongs to one thread at a time. */
#ifndef KEP_ZULOGGER_H
#define KEP_ZULOGGER_H

#include <stdint.h>

#include "kep/ZuBuf.h"
#include "kep/ZuInfo.h"
#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZuLogger ZuLogger; /* a logger, known by its address only */

/* Levels. A host may use others: ZuLogger_Write accepts them always. */
enum {
  ZULOGGER_PLAIN = 0,   /* text that ZuLogger_Write echoes as it is; to the echo of all others it adds a line end */
  ZULOGGER_INFO = 1,    /* kept under "l", as is every level but the next two */
  ZULOGGER_WARNING = 2, /* kept under "w" */
  ZULOGGER_ERROR = 3    /* kept under "e" */
};

/* Flags, added up. */
enum {
  ZULOGGER_ACCEPT_PLAIN = 0x01, /* ZuLogger_Write accepts lines of this level */
  ZULOGGER_ACCEPT_INFO = 0x02,
  ZULOGGER_ACCEPT_WARNING = 0x04,
  ZULOGGER_ACCEPT_ERROR = 0x08,
  ZULOGGER_ACCEPT_ALL = 0x0F,
  ZULOGGER_QUIET = 0x10, /* of the accepted lines, only those of level 0 and 3 are echoed */
  ZULOGGER_KEEP = 0x40,  /* accepted lines are kept */
  ZULOGGER_ECHO = 0x80   /* accepted lines are echoed */
};

/* A slot for the host's own logger, NULL at load; the library neither reads nor writes it. */
extern KEP_API ZuLogger *g_kep_logger;

/* Creates a logger with these flags; 255 sets them all, quiet included. Returns NULL when memory is short. */
KEP_API ZuLogger *ZuLogger_New(uint32_t flags);

/* Frees the logger and its store, and closes its descriptor should the host have set one. */
KEP_API void ZuLogger_Release(ZuLogger *logger);

/* Non-zero: every line is dropped from now on. */
KEP_API void ZuLogger_Ignore(ZuLogger *logger, int32_t on);

/* Sets the store's limit in bytes (1 MiB by default); ignored once the store exists. */
KEP_API void ZuLogger_SetInfoSize(ZuLogger *logger, uint32_t size);

/* Replaces the flags. */
KEP_API void ZuLogger_SetFlag(ZuLogger *logger, uint32_t flags);

/* Keeps a file name (cut at 499 bytes) and a UDP host (cut at 19; NULL keeps the old one) and port for the host's use.
 */
KEP_API void ZuLogger_SetFileName(ZuLogger *logger, const char *name);
KEP_API void ZuLogger_SetUDP(ZuLogger *logger, const char *host, int32_t port);

/* Pushes a header text (cut at 49 bytes) on a stack of 100, where a full stack replaces its top; pops it again. */
KEP_API void ZuLogger_Header(ZuLogger *logger, const char *text);
KEP_API void ZuLogger_Tail(ZuLogger *logger);

/* Writes one line as the flags say. Lines of level 0 carry their own line end; to the echo of others one is added. An
 * empty line is kept, not echoed (but for the line end of a quiet logger's level 3). Returns 0 when the logger ignores
 * lines, -1 when the line is refused by its level, is NULL, or is echoed only; else the sum of what the store answers
 * for the two records, each its size or -1: 23 for the time and the line's length + 4. So 22 says that the line was not
 * kept, as it is too long for the store or memory is short, and -2 that nothing was. */
KEP_API int32_t ZuLogger_Write(ZuLogger *logger, int32_t level, const char *text);

/* Keeps one line with a short time stamp, whatever the flags; echoes it, with a line end, only at level 0 and when it
 * is not empty. The third argument is not used. */
KEP_API void ZuLogger_Append(ZuLogger *logger, int32_t level, int32_t unused, const char *text);

/* Appends every kept record and a newline to `buffer`, oldest first, times and lines in turn; a buffer whose address is
 * below 101, such as NULL, prints them instead, and one whose elements are not bytes gets nothing. Pauses for a second
 * through VRK_Delay after the 1st, 101st, 201st ... record, so that a console can follow. */
KEP_API void ZuLogger_ShowToBuf(ZuLogger *logger, ZuBuf *buffer);

/* Appends what ZuLogger_ShowToBuf does, without its pauses; never prints: a buffer whose address is below 101, such as
 * NULL, gets nothing. Other threads wait for the lock until all is copied. */
KEP_API void ZuLogger_CopyToBuf(ZuLogger *logger, ZuBuf *buffer);

/* Prints every kept record: ZuLogger_ShowToBuf without a buffer. */
KEP_API void ZuLogger_ShowInfo(ZuLogger *logger);

/* Drops the kept records. */
KEP_API void ZuLogger_ClearInfo(ZuLogger *logger);

/* Prints the state of a store to standard output in seven lines; addresses as their low 32 bits. */
KEP_API void ZuLogger_Dump(ZuInfo *store);

#ifdef __cplusplus
}
#endif

#endif
