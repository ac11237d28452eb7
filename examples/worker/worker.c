/* worker.c: the host that most teams have, in C. Each sensor has a thread that reads it and, where that fails, logs it
 * and records a fault then and there; a timer reports on a thread of its own; main() serves until SIGTERM or SIGINT,
 * joins every thread and saves the faults. Requests, by type:
 *
 *   type 0   figures: how often each sensor was read, and in vain
 *   type 1   the same, the host's log and the logs of the faults
 *   type 2   the fault file: saves what was recorded, and reports the result
 *
 * The threading rule: KepPosix_UseThreads comes before everything else; then any thread may log, record, allocate and
 * print. What the host's own threads share is the host's to guard, by a lock that is held for none of kep's calls. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <kep/kep.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { IDENTITY = 0x0B030000 };         /* its first two bytes name this board to the server */
enum { WITH_LOGS = 1, FAULT_FILE = 2 }; /* request types */
enum { LOG_BYTES = 65536 };             /* of each log; the oldest lines give way */
enum { READ_MS = 500, REPORT_MS = 1000, ERROR_REGISTER = 1 };

/* ---- host data */

typedef struct Sensor {
  const char *name, *path;
  ZuFault *fault;
  int32_t readings, failures; /* under the lock */
} Sensor;

static Sensor sensors[] = {
    {.name = "load", .path = "/proc/loadavg"},
    {.name = "uptime", .path = "/proc/uptime"},
    {.name = "broken", .path = "/dev/no-such-sensor"}, /* so that there are faults to look at */
};
enum { SENSOR_COUNT = sizeof sensors / sizeof sensors[0] };

static pthread_t threads[SENSOR_COUNT + 1]; /* the last one is the timer's */
static int threadCount;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int isStopping; /* under the lock */
static CollectItem *item;

/* Counts a reading, and says whether to go on. */
static int note(Sensor *sensor, int hasFailed) {
  pthread_mutex_lock(&lock);
  ++sensor->readings;
  sensor->failures += hasFailed;
  const int goesOn = !isStopping;
  pthread_mutex_unlock(&lock);
  return goesOn;
}

/* What this thread can put and print without the lock. */
static Sensor copyOf(const Sensor *sensor) {
  pthread_mutex_lock(&lock);
  const Sensor copy = *sensor;
  pthread_mutex_unlock(&lock);
  return copy;
}

/* ---- on the threads of the sensors and of the timer */

/* Returns 0, or the errno that says why there is no reading. */
static int readLine(const char *path, char *line, int size) {
  FILE *file = fopen(path, "r");
  if (!file) return errno;
  const int error = fgets(line, size, file) ? 0 : EIO;
  fclose(file);
  line[error ? 0 : strcspn(line, "\n")] = '\0';
  return error;
}

static void *watch(void *argument) {
  Sensor *sensor = argument;
  for (;; ZuTime_Sleep(READ_MS)) {
    char line[80];
    const int error = readLine(sensor->path, line, sizeof line);
    if (error) {
      ZuFault_SetRunLog(sensor->fault, ZULOGGER_ERROR, 0, ZuString_SFormat("%s: error %d", sensor->path, error));
      ZuFault_SetRegist(sensor->fault, ERROR_REGISTER, (uint32_t)error);
    } else {
      ZuLogger_Write(g_kep_logger, ZULOGGER_INFO, ZuString_SFormat("%s: %s", sensor->name, line));
    }
    if (!note(sensor, error != 0)) return NULL;
  }
}

static int32_t report(int32_t interval) {
  for (int i = 0; i < SENSOR_COUNT; ++i) {
    const Sensor now = copyOf(&sensors[i]);
    if (now.failures == 0) continue;
    ZuLogger_Write(g_kep_logger, ZULOGGER_WARNING,
                   ZuString_SFormat("%s: %d of %d failed", now.name, now.failures, now.readings));
  }
  return interval; /* 0 would stop the timer */
}

static void *runTimers(void *argument) {
  ZuTimer_Loop();
  return argument;
}

/* ---- on the serving thread */

static int32_t collect(int32_t requestType) {
  if (requestType == FAULT_FILE) {
    ZuFault_Start();
    Collect_PutInt(item, 4, ZuFault_GetResult());
    return 0;
  }
  if (requestType == WITH_LOGS) Collect_PutLog(item, 5, g_kep_logger);
  for (int i = 0; i < SENSOR_COUNT; ++i) {
    const Sensor now = copyOf(&sensors[i]);
    Collect_BeginSection(item, i + 1);
    Collect_PutString(item, 1, now.name, 0);
    Collect_PutInt(item, 2, now.readings);
    Collect_PutInt(item, 3, now.failures);
    if (requestType == WITH_LOGS) Collect_PutRunLog(item, 5, now.fault);
    Collect_EndSection(item);
  }
  return 0;
}

static int32_t test(int32_t argument) {
  for (int i = 0; i < SENSOR_COUNT; ++i) Collect_PutInt(item, i + 1, copyOf(&sensors[i]).failures == 0);
  return argument;
}

/* Only servers of the board's own networks may ask, at no port of a system's service; what for does not matter. */
static int32_t isWelcome(const char *address, int32_t port, int32_t requestType) {
  (void)requestType;
  return port >= 1024 && (strncmp(address, "127.", 4) == 0 || strncmp(address, "10.", 3) == 0);
}

/* ---- the start and the end */

static void onSignal(int number) {
  (void)number;
  Collect_Stop(); /* main() sees to the rest */
}

static void setUpService(void) {
  CollectClient_SetTimeout(2000, 2000, 5000); /* a server that falls silent holds the service no longer than this */
  CollectClient_SetTrace(0);
  Collect_SetLogSize(LOG_BYTES);
  Collect_SetAccess(isWelcome);
  item = Collect_New("sensors", collect, test);
  const struct sigaction action = {.sa_handler = onSignal, .sa_flags = SA_RESTART};
  sigaction(SIGTERM, &action, NULL);
  sigaction(SIGINT, &action, NULL);
}

static int start(void *(*run)(void *), void *argument) {
  errno = pthread_create(&threads[threadCount], NULL, run, argument);
  if (errno == 0) ++threadCount;
  return errno == 0;
}

static int startThreads(void) {
  g_kep_logger = ZuLogger_New(ZULOGGER_ACCEPT_ALL | ZULOGGER_KEEP); /* and prints nothing */
  ZuLogger_SetInfoSize(g_kep_logger, LOG_BYTES);
  ZuTimer_Regist(report, REPORT_MS);
  for (int i = 0; i < SENSOR_COUNT; ++i) {
    sensors[i].fault = ZuFault_Regist(sensors[i].name, NULL);
    ZuFault_SetLogSize(sensors[i].fault, LOG_BYTES);
    if (!start(watch, &sensors[i])) return 0;
  }
  return start(runTimers, NULL);
}

static void joinThreads(void) {
  pthread_mutex_lock(&lock);
  isStopping = 1;
  pthread_mutex_unlock(&lock);
  ZuTimer_Stop();
  for (int i = 0; i < threadCount; ++i) pthread_join(threads[i], NULL);
}

int main(int argc, char **argv) {
  KepPosix_UseThreads();
  if (argc != 2 || !ZuFault_SetFile(ZuString_SFormat("%s/worker.faults", argv[1]), 1)) {
    fputs("usage: kep-worker FOLDER, where the fault file is written\n", stderr);
    return 2;
  }
  setUpService();
  const int isUp = startThreads();
  const int wasStopped = isUp && Collect_Init(IDENTITY) == 0;
  if (!wasStopped) perror(isUp ? "kep-worker: cannot serve on UDP port 9099" : "kep-worker: cannot start a thread");
  joinThreads();
  ZuFault_Start();
  const int32_t saved = ZuFault_GetResult();
  if (saved != 1) fprintf(stderr, "kep-worker: the faults are not saved: %s\n", strerror(-saved));
  Collect_Release(item);
  ZuLogger_Release(g_kep_logger);
  return wasStopped && saved == 1 ? EXIT_SUCCESS : EXIT_FAILURE;
}
