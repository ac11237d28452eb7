/* Collect.h: the collection service. A host registers items, gives Collect_Init a thread, and reports values from the
 * items' callbacks, which run on that thread.
 *
 * Nothing locks, and the toolkit's state is the process's: once Collect_Init serves, the host makes every call to the
 * library on the serving thread, inside item callbacks. Register items before. */
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

typedef struct CollectItem {
  int32_t index;        /* position in CollectParam's items, sent with every record */
  CollectFunc collect;  /* NULL: skipped by a collection run */
  CollectFunc selftest; /* NULL: skipped by a self-test */
  int32_t section;      /* sent with every record; 0 outside a section */
  char name[20];
} CollectItem;

typedef struct CollectParam {
  ZuLogger *logger; /* begin and end of every item, and failures; made by Collect_Init */
  CollectItem *items[19];
  int32_t count;
} CollectParam;

extern KEP_API CollectParam g_collect_param;

/* Serves collection requests on UDP port 9099, one after another, for ever. The two most significant bytes of
 * `identity` are sent at the start of every run. Returns only when the port cannot be had, with a negative number;
 * otherwise it makes a new logger first, and an earlier one is not released. */
KEP_API int32_t Collect_Init(uint32_t identity);

/* Registers an item under `name`, of which 19 bytes are kept. Returns it, to be given back with Collect_Release, or
 * NULL for a NULL or empty name, a 20th item, or when memory is short. */
KEP_API CollectItem *Collect_New(const char *name, CollectFunc collect, CollectFunc selftest);

/* Frees an item; later ones move down one index. NULL and an item that is not registered are ignored. */
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

/* Report every record of a fault's init or run log, oldest first, times and lines in turn, each as one string, empty
 * for an empty line. A NULL item or fault, or a log without a line, sends nothing. */
KEP_API void Collect_PutInitLog(CollectItem *item, int32_t key, const ZuFault *logs);
KEP_API void Collect_PutRunLog(CollectItem *item, int32_t key, const ZuFault *logs);

/* Prints the service's log. */
KEP_API void Collect_ShowLog(void);

/* One collection run and one self-test, as Collect_Init makes them for a request from this address and port. A
 * self-test sends no catalogue; each item's records follow a string record of its name under item index 0xFFFF. Return
 * 1, or 0: the server cannot be reached or memory is short, "connect to server fail." in the log; or the server stops
 * taking messages, "flush to server fail.". A run that the server broke may leave its connection for the next run to
 * close. */
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
  uint32_t finishedRuns; /* collections and self-tests */
  uint32_t failedRuns;
  uint32_t messages; /* sent and acknowledged */
} CollectStats;

/* Copies the counters to `*out`, which may be NULL. */
KEP_API void Collect_GetStats(CollectStats *out);

#ifdef __cplusplus
}
#endif

#endif
