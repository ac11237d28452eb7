// ZuFault.cpp: the registry of faults, their recorded values, and the file that saves them.
//
//   recorded value  key: item type (1) | fault index (1)    value: id (4) | .. as ZuFault.h says, big endian
#include "ZuFault.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Kep.hpp"
#include "ZuBuffer.hpp"
#include "ZuInfo.hpp"
#include "ZuLogger.hpp"
#include "ZuWrite.hpp"
#include "kep/ZuMem.h"
#include "kep/ZuPrint.h"
#include "kep/ZuString.h"

#ifndef KEP_FAULT_LOG_PATH
#define KEP_FAULT_LOG_PATH "/kep.log"
#endif

ZuList *g_ZuFault_List;
ZuInfo *g_ZuFault_Info;

namespace {

constexpr uint32_t kValueStoreLimit = 10485760;
constexpr uint32_t kDefaultLogSize = 1048576;
constexpr size_t kLongestName = sizeof(ZuFault::name) - 1;
constexpr size_t kLongestPath = 255;
constexpr size_t kLongestRecord = UINT16_MAX;  // what a length field of the file can say

enum ItemType : uint8_t { kRegist, kRegist64, kRegistEx, kCounter, kCounter64, kCounterEx, kValue };

bool bRunning;                  // stops a second run, from another thread or from within a callback
bool l_needsFile;               // the last run could not open its file: none begins before ZuFault_SetFile is called
int32_t l_result;               // of the last run that ended
char l_path[kLongestPath + 1];  // empty: the build's
bool l_isSafe;

// ---- the registry

int32_t countFaults() {
  const Locked locked;
  return ZuList_Length(g_ZuFault_List);
}

// The fault at a position; it stays where it is while the list grows.
const ZuFault *faultAt(int32_t index) {
  const Locked locked;
  return static_cast<const ZuFault *>(ZuList_Get(g_ZuFault_List, index));
}

bool takesLines(const ZuFault *fault) {
  const Locked locked;
  return fault && !fault->ignore;
}

// ---- recording

bool makeValueStore() {
  if (!g_ZuFault_Info) g_ZuFault_Info = ZuInfo_New(kValueStoreLimit);
  return g_ZuFault_Info != nullptr;
}

// This and the next are guarded, in the name of the function that they are all of.
int32_t recordNumber(const char *function, const ZuFault *fault, ItemType type, uint32_t id, uint64_t value) {
  const Guarded guard(function);
  if (!fault || !makeValueStore()) return 0;
  const uint8_t key[2] = {type, fault->index};
  const bool isLong = type == kRegist64 || type == kCounter64;
  uint8_t record[sizeof id + sizeof value];
  uint8_t *end = storeBig(record, id);
  end = isLong ? storeBig(end, value) : storeBig(end, static_cast<uint32_t>(value));
  ZuInfo_Append(g_ZuFault_Info, key, sizeof key, record, static_cast<int32_t>(end - record));
  return 0;
}

int32_t recordBytes(const char *function, const ZuFault *fault, ItemType type, uint32_t id, const void *data,
                    int32_t len) {
  const Guarded guard(function);
  if (!fault || !makeValueStore()) return 0;
  const uint8_t key[2] = {type, fault->index};
  uint8_t head[8];
  storeBig(storeBig(head, id), static_cast<uint32_t>(len));
  ZuInfo_Append2Message(g_ZuFault_Info, key, sizeof key, head, sizeof head, data, len);
  return 0;
}

// ---- the file

// While one lives, the signals wait that a write raises beyond the host's file size limit and into a FIFO whose reader
// went away: by default they end the process.
class HeldSignals {
 public:
  HeldSignals() {
    sigpending(&pending_);
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGXFSZ);
    sigaddset(&held, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &held, &mask_);
  }

  ~HeldSignals() { pthread_sigmask(SIG_SETMASK, &mask_, nullptr); }

  HeldSignals(const HeldSignals &) = delete;
  HeldSignals &operator=(const HeldSignals &) = delete;

  // Takes back what a failed write raised. The system merges it with one of the host's that this thread has waiting,
  // which then waits again; one that waits for the whole process is another.
  void takeBack(int error) const {
    const int signal = error == EFBIG ? SIGXFSZ : error == EPIPE ? SIGPIPE : 0;
    if (signal == 0) return;
    sigset_t taken, left;
    sigemptyset(&taken);
    sigaddset(&taken, signal);
    const timespec atOnce = {};
    sigtimedwait(&taken, nullptr, &atOnce);
    sigpending(&left);
    if (sigismember(&pending_, signal) && !sigismember(&left, signal)) raise(signal);
  }

 private:
  sigset_t mask_;
  sigset_t pending_;
};

// The file, small pieces gathered. Nothing follows a write that failed: what is there is the beginning of the whole.
struct File {
  int fd;
  int error;       // of the first failure; 0: none
  int writeError;  // of the write that failed
  size_t length;   // of what is gathered
  uint8_t gathered[1024];
};

void noteFailure(File *file, int error) {
  if (file->error == 0) file->error = error;
}

void writeOut(File *file, const void *data, size_t length) {
  if (file->writeError != 0 || kep::writeWhole(file->fd, data, length)) return;
  file->writeError = errno;
  noteFailure(file, errno);
}

void flush(File *file) {
  writeOut(file, file->gathered, file->length);
  file->length = 0;
}

void writeBytes(File *file, const void *data, size_t length) {
  if (length > sizeof file->gathered - file->length) flush(file);
  if (length <= sizeof file->gathered) {
    std::memcpy(file->gathered + file->length, data, length);
    file->length += length;
  } else {
    writeOut(file, data, length);
  }
}

void writeLength(File *file, size_t length) {
  uint8_t bytes[2];
  storeBig(bytes, static_cast<uint16_t>(length));
  writeBytes(file, bytes, sizeof bytes);
}

// How much of a value fits a record beside `otherSize` bytes.
size_t cutToFit(size_t valueLength, size_t otherSize) {
  return valueLength < kLongestRecord - otherSize ? valueLength : kLongestRecord - otherSize;
}

// The store may be made by the first line, of another thread, at any time.
ZuInfo *storeOf(const ZuLogger *log) {
  const Locked locked;
  return log ? log->store : nullptr;
}

void writeLog(File *file, const ZuFault *fault, const ZuLogger *log, const char *tag) {
  const size_t nameLength = std::strlen(fault->name);
  const size_t headSize = std::strlen(tag) + 1 + nameLength + 1;
  StoreWalk walk(storeOf(log));
  for (StoreRecord record; walk.next(&record);) {
    const size_t valueLength = cutToFit(record.valueLength, headSize);
    writeLength(file, headSize + valueLength);
    writeBytes(file, tag, std::strlen(tag));
    writeBytes(file, " ", 1);
    writeBytes(file, fault->name, nameLength);
    writeBytes(file, " ", 1);
    writeBytes(file, record.value, valueLength);
  }
  if (walk.lacksMemory()) noteFailure(file, ENOMEM);
}

void writeLogs(File *file) {
  const int32_t count = countFaults();
  for (int32_t i = 0; i < count; ++i) {
    const ZuFault *fault = faultAt(i);
    if (!fault) continue;
    writeLog(file, fault, fault->initLog, "log");
    writeLog(file, fault, fault->runLog, "run");
  }
}

void writeValue(File *file, const StoreRecord &record) {
  const ZuFault *fault = record.keyLength == 2 ? faultAt(record.key[1]) : nullptr;
  if (!fault) return;
  const size_t nameLength = std::strlen(fault->name);
  const size_t valueLength = cutToFit(record.valueLength, nameLength + 2);
  const uint8_t head[2] = {static_cast<uint8_t>(nameLength + 1), record.key[0]};
  writeLength(file, sizeof head + nameLength + valueLength);
  writeBytes(file, head, sizeof head);
  writeBytes(file, fault->name, nameLength);
  writeBytes(file, record.value, valueLength);
}

// ---- a run

constexpr char kBeside[] = ".new";  // behind the path: what a safe run writes and then renames
constexpr size_t kPathSize = sizeof KEP_FAULT_LOG_PATH > sizeof l_path ? sizeof KEP_FAULT_LOG_PATH : sizeof l_path;

struct Run {
  char path[kPathSize];  // this and the next as they were set when it began
  bool isSafe;
  bool isOpened;
  ZuInfo *values;  // NULL: none
  uint32_t end;    // the number of the first value that is not this run's: recorded too late, or not written
};

// Claims the run; false when there is nothing to collect, or somebody else's is under way.
bool beginRun(Run *run) {
  const Locked locked;
  if (ZuList_Length(g_ZuFault_List) == 0 || bRunning || l_needsFile) return false;
  bRunning = true;
  run->isSafe = l_isSafe;
  run->isOpened = false;
  std::strcpy(run->path, *l_path ? l_path : KEP_FAULT_LOG_PATH);
  l_needsFile = !run->isSafe;  // until it is open; a ZuFault_SetFile before that counts, too
  return true;
}

void runCallbacks() {
  const int32_t count = countFaults();
  for (int32_t i = 0; i < count; ++i) {
    const ZuFault *fault = faultAt(i);
    if (!fault || !fault->callback) continue;
    ZuPrint_Show(ZuString_SFormat("start callback [%s]\n", fault->name), 0);
    fault->callback();
    ZuPrint_Show(ZuString_SFormat("end callback [%s]\n", fault->name), 0);
  }
}

// The values that are there now are this run's.
void takeValues(Run *run) {
  const Locked locked;
  run->values = g_ZuFault_Info;
  run->end = run->values ? numberOfNext(run->values) : 0;
}

bool isEvicted(const ZuInfo *values, uint32_t number) {
  const Locked locked;
  return isBefore(number, numberOfOldest(values));
}

// Other threads record meanwhile, for which a full store gives up its oldest: the walk then goes on behind those.
void writeValues(File *file, Run *run) {
  uint32_t next;
  do {
    StoreWalk walk(run->values);
    StoreRecord record;
    while (isBefore(walk.reached(), run->end) && walk.next(&record)) writeValue(file, record);
    next = walk.reached();
    if (walk.lacksMemory()) {
      noteFailure(file, ENOMEM);
      run->end = next;
    }
  } while (isBefore(next, run->end) && isEvicted(run->values, next));
}

void writeAll(File *file, Run *run) {
  const HeldSignals held;
  writeLogs(file);
  writeLength(file, 0);  // the end of the logs
  writeValues(file, run);
  flush(file);
  held.takeBack(file->writeError);
}

// A close that a signal interrupts has closed the file all the same.
void closeFile(File *file) {
  if (close(file->fd) != 0 && errno != EINTR) noteFailure(file, errno);
}

int openUninterrupted(const char *path, int flags) {
  int fd;
  do {
    fd = open(path, flags | O_CLOEXEC, 0666);
  } while (fd < 0 && errno == EINTR);
  return kep::aboveStandard(fd);
}

// A FIFO without a reader cannot be opened; an open that waits might do so for ever. Another process's lease on a file
// is waited for: it ends. Writes then wait as usual.
int openInPlace(const char *path) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
  int fd = openUninterrupted(path, kFlags | O_NONBLOCK);
  if (fd < 0 && errno == EAGAIN) fd = openUninterrupted(path, kFlags);
  if (fd >= 0) fcntl(fd, F_SETFL, 0);
  return fd;
}

// Returns, as writeSafely does, the errno of the first failure, or 0.
int writeInPlace(Run *run) {
  File file = {openInPlace(run->path), 0, 0, 0, {}};
  if (file.fd < 0) return errno;
  run->isOpened = true;
  writeAll(&file, run);
  closeFile(&file);
  return file.error;
}

// Whatever was left at the path, a link or a FIFO even, makes way unopened.
int openFresh(const char *path) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL;
  const int fd = openUninterrupted(path, kFlags);
  return fd < 0 && errno == EEXIST && unlink(path) == 0 ? openUninterrupted(path, kFlags) : fd;
}

bool sync(int fd) {
  int result;
  do {
    result = fsync(fd);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

// Makes the renaming last. A file system that cannot sync a folder says EINVAL, and does what it can by itself.
int syncFolderOf(char *path) {
  char *name = std::strrchr(path, '/');
  if (!name) {
    std::strcpy(path, ".");
  } else {
    name[name == path] = '\0';
  }
  const int fd = openUninterrupted(path, O_RDONLY | O_DIRECTORY);
  if (fd < 0) return errno;
  const int error = sync(fd) || errno == EINVAL ? 0 : errno;
  close(fd);  // nothing was written through it
  return error;
}

// The file under its own name is at any time the whole old one or the whole new one.
int writeSafely(Run *run) {
  char beside[sizeof run->path + sizeof kBeside - 1];
  std::strcat(std::strcpy(beside, run->path), kBeside);
  File file = {openFresh(beside), 0, 0, 0, {}};
  if (file.fd < 0) return errno;
  writeAll(&file, run);
  if (file.error == 0 && !sync(file.fd)) noteFailure(&file, errno);
  closeFile(&file);
  if (file.error == 0 && rename(beside, run->path) != 0) noteFailure(&file, errno);
  if (file.error == 0) return syncFolderOf(run->path);
  unlink(beside);  // it takes room
  return file.error;
}

// Under the lock.
void dropValues(const Run &run) {
  const bool areAll = numberOfNext(run.values) == run.end;
  if (!areAll) dropBefore(run.values, run.end);
  if (!areAll && numberOfOldest(run.values) != numberOfNext(run.values)) return;
  ZuInfo_Release(run.values);
  g_ZuFault_Info = nullptr;
}

void endRun(const Run &run, int error) {
  const Locked locked;
  const bool isSaved = run.isSafe ? error == 0 : run.isOpened;
  if (isSaved && run.values) dropValues(run);
  if (run.isOpened) l_needsFile = false;
  l_result = error == 0 ? 1 : -error;
  bRunning = false;
}

void releaseFault(ZuFault *fault) {
  ZuLogger_Release(fault->initLog);
  ZuLogger_Release(fault->runLog);
  ZuMem_LocalFree(fault);
}

}  // namespace

ZuFault *ZuFault_Regist(const char *name, ZuFaultCallback callback) {
  const Guarded guard(__func__);
  if (!name) return nullptr;
  if (!g_ZuFault_List) g_ZuFault_List = ZuList_New(0, ZuMem_LocalFree);
  if (!g_ZuFault_List) return nullptr;
  auto *fault = static_cast<ZuFault *>(ZuMem_LocalMalloc(sizeof(ZuFault)));
  if (!fault) return nullptr;
  std::memset(fault, 0, sizeof *fault);
  std::memcpy(fault->name, name, strnlen(name, kLongestName));
  fault->callback = callback;
  fault->initLog = ZuLogger_New(255);  // a fault without a logger drops its lines
  fault->runLog = ZuLogger_New(255);
  fault->index = static_cast<uint8_t>(ZuList_Length(g_ZuFault_List));
  if (!ZuList_Append(g_ZuFault_List, fault)) {
    releaseFault(fault);
    return nullptr;
  }
  return fault;
}

void ZuFault_Ignore(ZuFault *fault, int32_t on) {
  const Guarded guard(__func__);
  if (fault) fault->ignore = on;
}

int32_t ZuFault_SetInfo(ZuFault *fault, uint32_t value) {
  const Guarded guard(__func__);
  if (fault) fault->info = value;
  return 0;
}

int32_t ZuFault_SetInitLog(ZuFault *fault, int32_t level, int32_t unused, const char *text) {
  const Waiting mark(__func__);
  if (takesLines(fault)) ZuLogger_Append(fault->initLog, level, unused, text);
  return 0;
}

int32_t ZuFault_SetRunLog(ZuFault *fault, int32_t level, int32_t unused, const char *text) {
  const Waiting mark(__func__);
  if (takesLines(fault)) ZuLogger_Append(fault->runLog, level, unused, text);
  return 0;
}

int32_t ZuFault_SetRegist(ZuFault *fault, uint32_t id, uint32_t value) {
  return recordNumber(__func__, fault, kRegist, id, value);
}

int32_t ZuFault_SetRegist64(ZuFault *fault, uint32_t id, uint64_t value) {
  return recordNumber(__func__, fault, kRegist64, id, value);
}

int32_t ZuFault_SetRegistEx(ZuFault *fault, uint32_t id, const void *data, int32_t len) {
  return recordBytes(__func__, fault, kRegistEx, id, data, len);
}

int32_t ZuFault_SetCounter(ZuFault *fault, uint32_t id, uint32_t value) {
  return recordNumber(__func__, fault, kCounter, id, value);
}

int32_t ZuFault_SetCounter64(ZuFault *fault, uint32_t id, uint64_t value) {
  return recordNumber(__func__, fault, kCounter64, id, value);
}

int32_t ZuFault_SetCounterEx(ZuFault *fault, uint32_t id, const void *data, int32_t len) {
  return recordBytes(__func__, fault, kCounterEx, id, data, len);
}

int32_t ZuFault_SetValue(ZuFault *fault, uint32_t id, const void *data, int32_t len) {
  return recordBytes(__func__, fault, kValue, id, data, len);
}

int32_t ZuFault_ShowInitLogToBuf(ZuFault *fault, ZuBuf *buffer) {
  const Waiting mark(__func__);
  if (fault) ZuLogger_ShowToBuf(fault->initLog, buffer);
  return 0;
}

int32_t ZuFault_ShowRunLogToBuf(ZuFault *fault, ZuBuf *buffer) {
  const Waiting mark(__func__);
  if (fault) ZuLogger_ShowToBuf(fault->runLog, buffer);
  return 0;
}

int32_t ZuFault_ShowInitLog(ZuFault *fault) { return ZuFault_ShowInitLogToBuf(fault, nullptr); }

int32_t ZuFault_ShowRunLog(ZuFault *fault) { return ZuFault_ShowRunLogToBuf(fault, nullptr); }

void ZuFault_Start(void) {
  const Waiting mark(__func__);
  Run run;
  if (!beginRun(&run)) return;
  runCallbacks();
  takeValues(&run);
  endRun(run, run.isSafe ? writeSafely(&run) : writeInPlace(&run));
}

int32_t ZuFault_SetFile(const char *path, int32_t safe) {
  const Guarded guard(__func__);
  const char *text = path ? path : "";
  const size_t length = strnlen(text, sizeof l_path);
  if ((path && length == 0) || length > kLongestPath) return 0;
  std::memcpy(l_path, text, length + 1);
  l_isSafe = safe != 0;
  l_needsFile = false;
  return 1;
}

int32_t ZuFault_GetResult(void) {
  const Guarded guard(__func__);
  return l_result;
}

void ZuFault_SetLogSize(ZuFault *fault, uint32_t size) {
  const Guarded guard(__func__);
  if (!fault) return;
  const uint32_t limit = size ? size : kDefaultLogSize;
  ZuLogger_SetInfoSize(fault->initLog, limit);
  ZuLogger_SetInfoSize(fault->runLog, limit);
}
