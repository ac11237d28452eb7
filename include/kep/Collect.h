/* Collect.h: the collection service. A host registers items, gives Collect_Init a thread, and reports values from the
 * items' callbacks, which run on that thread.
 *
 * Callbacks. One may take its time: the server waits for it, and so do all later requests, and nothing here limits it.
 * It may call every module, register and release items, its own included, and call Collect_Stop; it must not begin a
 * run, nor call Collect_Init. What it reports goes out meanwhile, in messages of up to 1024 bytes, the last when it
 * returns.
 *
 * Waiting. Without CollectClient_SetTimeout the service waits for ever for a server that does not answer. With it, a
 * run takes at most the connect limit and, for each message, the send and the acknowledgement limit, beside its
 * callbacks.
 *
 * Threads. With a lock (Kep_SetLock) items, settings, statistics and the log may be used from any thread at any time; a
 * run serves the items that it began with, under the indexes that its catalogue tells. Sections, Collect_Put... and the
 * runs belong to the serving thread, and g_collect_param is the host's to serialise. Without a lock what other threads
 * may call once Collect_Init serves is what kep.h says, and Collect_Stop and Collect_GetStats. A host that holds a lock
 * of its own while it calls what reports, runs or shows holds it for as long as that waits.
 *
 * Processes. A program that the host executes inherits no socket of the library's. A child that goes on without
 * executing one has copies of them all: a port stays taken, and a connection open, until the child has ended as well.
 * Collect_Stop there does not reach the parent, and the service is not for such a child of a process that serves.
 */
#ifndef KEP_COLLECT_H
#define KEP_COLLECT_H

#include <stdint.h>

#include "kep/ZuFault.h"
#include "kep/ZuLogger.h"
#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Takes the request type (0 to 2) in a collection run, 0 in a self-test. The result is ignored. */
typedef int32_t (*CollectFunc)(int32_t argument);

/* An item, made by Collect_New. Hosts read it only. */
typedef struct CollectItem {
  int32_t index;        /* position in CollectParam's items, sent with every record */
  CollectFunc collect;  /* NULL: skipped by a collection run */
  CollectFunc selftest; /* NULL: skipped by a self-test */
  int32_t section;      /* sent with every record; 0 outside a section */
  char name[20];        /* as it was registered, cut at 19 bytes */
} CollectItem;

/* What the service works with. */
typedef struct CollectParam {
  ZuLogger *logger;       /* begin and end of every item, and failures; made by Collect_Init */
  CollectItem *items[19]; /* those registered, in front */
  int32_t count;          /* of them */
} CollectParam;

/* The process has one. */
extern KEP_API CollectParam g_collect_param;

/* Serves collection requests, one after another, until Collect_Stop. The two most significant bytes of `identity` are
 * sent at the start of every run. Returns 0 for a stop, with every descriptor of the service closed; it may be called
 * again. Returns a negative number when its port or its wake-up cannot be had, or another thread serves.
 *
 * The first time it makes a new logger, and one that is there before is not released; after a stop it goes on with the
 * logger there is. */
KEP_API int32_t Collect_Init(uint32_t identity);

/* Ends Collect_Init. It never blocks and may be called on any thread, without a lock, and in a signal handler. What
 * waits in the service ends at once: for a request, a connection, a server that does not read or acknowledge, or after
 * a failure of the socket. A callback that runs is waited for, but what it reports is not sent any more. A run under
 * way has failed, as with a server that breaks it off. While nobody serves, a stop ends the next Collect_Init as soon
 * as it begins to; several are one. Runs that the host makes itself, outside Collect_Init, are not stopped.
 *
 * What is printed is not cut short: a console that nobody reads holds up a stop too, unless CollectClient_SetTrace has
 * silenced the service. */
KEP_API void Collect_Stop(void);

/* Sets where the service listens, and from which address its connections leave: four decimal numbers or NULL, any
 * address (the default), and a port or 0, 9099. It counts from the next Collect_Init or CollectClient_Init on. Returns
 * 1; or 0, changing nothing, for any other text and a port below 0 or above 65535. */
KEP_API int32_t Collect_SetAddress(const char *addressText, int32_t port);

/* Registers an item under `name`, of which 19 bytes are kept. Returns it, to be given back with Collect_Release, or
 * NULL for a NULL or empty name, a 20th item, or when memory is short. During a run it is for the next one. A build
 * with asserts says on standard error, once each, that there is a 20th item or a second one of the same name. */
KEP_API CollectItem *Collect_New(const char *name, CollectFunc collect, CollectFunc selftest);

/* Frees an item; later ones move down one index. During a run none of its callbacks begins any more; one that has begun
 * ends, and may still report, and the item is freed, and counts as one of 19, only when the run is over. NULL and an
 * item that is not registered, or released already, are ignored. */
KEP_API void Collect_Release(CollectItem *item);

/* Set the section of the records that follow, and set it back to 0. NULL is ignored. */
KEP_API void Collect_BeginSection(CollectItem *item, int32_t section);
KEP_API void Collect_EndSection(CollectItem *item);

/* Report one value under a key of the host's choice. They send nothing outside a run (a failed one lasts until the next
 * begins), or for a NULL item or text. A text or struct of any length is sent in as many pieces as it takes; length 0
 * measures a text and sends no struct; an empty text and a negative length send nothing. */
KEP_API void Collect_PutInt(CollectItem *item, int32_t key, int32_t value);
KEP_API void Collect_PutLong(CollectItem *item, int32_t key, int64_t value);
KEP_API void Collect_PutString(CollectItem *item, int32_t key, const char *text, int32_t length);
KEP_API void Collect_PutStruct(CollectItem *item, int32_t key, const void *data, int32_t length);

/* Report every record of a fault's init or run log, or of any logger, oldest first, times and lines in turn, each as
 * one string, empty for an empty line. With a lock the records are those that are there at the call; it ends early
 * where the next one has been evicted meanwhile, or there is no memory for a copy. A NULL item, fault or logger, or a
 * log without a line, sends nothing. */
KEP_API void Collect_PutInitLog(CollectItem *item, int32_t key, const ZuFault *logs);
KEP_API void Collect_PutRunLog(CollectItem *item, int32_t key, const ZuFault *logs);
KEP_API void Collect_PutLog(CollectItem *item, int32_t key, ZuLogger *logger);

/* Sets the limit of the service's log in bytes; 0: 1 MiB, the default. It counts until the log keeps its first line. */
KEP_API void Collect_SetLogSize(uint32_t size);

/* Prints the service's log, with the pauses of ZuLogger_ShowToBuf. */
KEP_API void Collect_ShowLog(void);

/* One collection run and one self-test, as Collect_Init makes them for a request from this address and port. A
 * self-test sends no catalogue; each item's records follow a string record of its name under item index 0xFFFF. Return
 * 1, or 0: the server cannot be reached or memory is short, "connect to server fail." in the log; or the server stops
 * taking messages, "flush to server fail.". Items released meanwhile are passed over. A run that the server broke may
 * leave its connection for the next run to close. */
KEP_API int32_t Collect_Start(const char *addressText, int32_t port, int32_t requestType, int32_t sequence, uint8_t id0,
                              uint8_t id1);
KEP_API int32_t Collect_SelfTest(const char *addressText, int32_t port, int32_t sequence, uint8_t id0, uint8_t id1);

/* Is asked before a request is served, on the serving thread: returns 0 to refuse it. Takes the dotted address and the
 * port (0 to 65535) to which the board would connect, and the request's type. */
typedef int32_t (*CollectAccess)(const char *addressText, int32_t port, int32_t requestType);

/* Sets who decides on requests; NULL, the default, serves everyone. */
KEP_API void Collect_SetAccess(CollectAccess access);

/* What the service has done since the process began; the counters wrap. */
typedef struct CollectStats {
  uint32_t datagrams;    /* received */
  uint32_t dropped;      /* of them, those that broke a rule of CollectClient_WaitFor */
  uint32_t refused;      /* by the access callback */
  uint32_t finishedRuns; /* collections and self-tests whose every message was acknowledged */
  uint32_t failedRuns;   /* all others */
  uint32_t messages;     /* sent and acknowledged; a connection closed instead does not count as that here */
} CollectStats;

/* Copies the counters to `*out`, which may be NULL. On any thread, without a lock. */
KEP_API void Collect_GetStats(CollectStats *out);

#ifdef __cplusplus
}
#endif

#endif
