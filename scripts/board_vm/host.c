/* host.c: the host whose service is checked on the emulated board. It has as many items as there can be, so that a run
 * has many messages, of which some are sent within an item and some behind it.
 *
 *   host CONNECT_MS SEND_MS ACK_MS    the limits; 0: none
 *
 * The first item reports the service's counters, in the order of CollectStats. SIGTERM stops the service. */
#define _POSIX_C_SOURCE 200809L
#include <kep/kep.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

enum { IDENTITY = 0x0B040000, ITEMS = 19, LONG_BYTES = 3000, LOG_BYTES = 16384 };

static CollectItem *items[ITEMS];
static int turn; /* the item that reports next */

static int32_t collectCounters(int32_t type) {
  CollectStats stats;
  Collect_GetStats(&stats);
  const uint32_t counters[] = {stats.datagrams,    stats.dropped,    stats.refused,
                               stats.finishedRuns, stats.failedRuns, stats.messages};
  for (int i = 0; i < 6; ++i) Collect_PutInt(items[0], i + 1, (int32_t)counters[i]);
  turn = 1;
  return type;
}

static int32_t collect(int32_t type) {
  static char text[LONG_BYTES];
  CollectItem *const item = items[turn++];
  Collect_PutInt(item, 1, turn);
  if (turn % 3 == 0) Collect_PutStruct(item, 2, text, LONG_BYTES);
  return type;
}

static void onSignal(int number) {
  (void)number;
  Collect_Stop();
}

int main(int argc, char **argv) {
  if (argc != 4) {
    fputs("usage: host CONNECT_MS SEND_MS ACK_MS\n", stderr);
    return 2;
  }
  CollectClient_SetTimeout(atoi(argv[1]), atoi(argv[2]), atoi(argv[3]));
  CollectClient_SetTrace(0);
  Collect_SetLogSize(LOG_BYTES);
  for (int i = 0; i < ITEMS; ++i) {
    const CollectFunc report = i == 0 ? collectCounters : collect;
    items[i] = Collect_New(ZuString_SFormat("item-%d", i), report, report);
    if (!items[i]) return EXIT_FAILURE;
  }
  const struct sigaction action = {.sa_handler = onSignal, .sa_flags = SA_RESTART};
  sigaction(SIGTERM, &action, NULL);
  return Collect_Init(IDENTITY) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
