// ZuFault.cpp: the registry of faults, their recorded values, and the file that saves them.
//
//   recorded value  key: item type (1) | fault index (1)    value: id (4) | .. as ZuFault.h says, big endian
#include "ZuFault.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "ZuBuffer.hpp"
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
constexpr size_t kLongestName = sizeof(ZuFault::name) - 1;
constexpr size_t kLongestRecord = UINT16_MAX;  // what a length field of the file can say

enum ItemType : uint8_t { kRegist, kRegist64, kRegistEx, kCounter, kCounter64, kCounterEx, kValue };

bool bRunning;  // stops a run from within a callback; stays set for good when the file cannot be opened

// ---- recording

bool makeValueStore() {
  if (!g_ZuFault_Info) g_ZuFault_Info = ZuInfo_New(kValueStoreLimit);
  return g_ZuFault_Info != nullptr;
}

int32_t recordNumber(const ZuFault *fault, ItemType type, uint32_t id, uint64_t value) {
  if (!fault || !makeValueStore()) return 0;
  const uint8_t key[2] = {type, fault->index};
  const bool isLong = type == kRegist64 || type == kCounter64;
  uint8_t record[sizeof id + sizeof value];
  uint8_t *end = storeBig(record, id);
  end = isLong ? storeBig(end, value) : storeBig(end, static_cast<uint32_t>(value));
  ZuInfo_Append(g_ZuFault_Info, key, sizeof key, record, static_cast<int32_t>(end - record));
  return 0;
}

int32_t recordBytes(const ZuFault *fault, ItemType type, uint32_t id, const void *data, int32_t len) {
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
  int error;      // of the write that failed; 0: none
  size_t length;  // of what is gathered
  uint8_t gathered[1024];
};

void writeOut(File *file, const void *data, size_t length) {
  if (file->error == 0 && !kep::writeWhole(file->fd, data, length)) file->error = errno;
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

void writeLog(File *file, const ZuFault *fault, const ZuLogger *log, const char *tag) {
  const size_t nameLength = std::strlen(fault->name);
  const size_t headSize = std::strlen(tag) + 1 + nameLength + 1;
  int32_t cursor = -1;
  const uint8_t *value;
  uint16_t length;
  while (log && ZuInfo_Get(log->store, nullptr, 0, &cursor, nullptr, nullptr, &value, &length)) {
    const size_t valueLength = cutToFit(length, headSize);
    writeLength(file, headSize + valueLength);
    writeBytes(file, tag, std::strlen(tag));
    writeBytes(file, " ", 1);
    writeBytes(file, fault->name, nameLength);
    writeBytes(file, " ", 1);
    writeBytes(file, value, valueLength);
  }
}

void writeValue(File *file, const ZuFault *fault, uint8_t itemType, const uint8_t *value, size_t length) {
  const size_t nameLength = std::strlen(fault->name);
  const size_t valueLength = cutToFit(length, nameLength + 2);
  const uint8_t head[2] = {static_cast<uint8_t>(nameLength + 1), itemType};
  writeLength(file, sizeof head + nameLength + valueLength);
  writeBytes(file, head, sizeof head);
  writeBytes(file, fault->name, nameLength);
  writeBytes(file, value, valueLength);
}

void writeLogs(File *file) {
  const int32_t count = ZuList_Length(g_ZuFault_List);
  for (int32_t i = 0; i < count; ++i) {
    const auto *fault = static_cast<const ZuFault *>(ZuList_Get(g_ZuFault_List, i));
    if (!fault) continue;
    writeLog(file, fault, fault->initLog, "log");
    writeLog(file, fault, fault->runLog, "run");
  }
}

void writeValues(File *file) {
  int32_t cursor = -1;
  const uint8_t *key;
  const uint8_t *value;
  uint8_t keyLength;
  uint16_t length;
  while (ZuInfo_Get(g_ZuFault_Info, nullptr, 0, &cursor, &key, &keyLength, &value, &length)) {
    if (keyLength != 2) continue;
    const auto *fault = static_cast<const ZuFault *>(ZuList_Get(g_ZuFault_List, key[1]));
    if (fault) writeValue(file, fault, key[0], value, length);
  }
}

int openFor(int flags) {
  int fd;
  do {
    fd = open(KEP_FAULT_LOG_PATH, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | flags, 0666);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// A FIFO without a reader cannot be opened; an open that waits might do so for ever. Another process's lease on a file
// is waited for: it ends. Writes then wait as usual.
int openFile() {
  int fd = openFor(O_NONBLOCK);
  if (fd < 0 && errno == EAGAIN) fd = openFor(0);
  if (fd >= 0) fcntl(fd, F_SETFL, 0);
  return fd;
}

// False when the file cannot be opened; there is nobody to tell of a write that fails.
bool writeFile() {
  const HeldSignals held;
  File file = {openFile(), 0, 0, {}};
  if (file.fd < 0) return false;
  writeLogs(&file);
  writeLength(&file, 0);  // the end of the logs
  writeValues(&file);
  flush(&file);
  held.takeBack(file.error);
  close(file.fd);
  return true;
}

void runCallbacks() {
  const int32_t count = ZuList_Length(g_ZuFault_List);
  for (int32_t i = 0; i < count; ++i) {
    const auto *fault = static_cast<const ZuFault *>(ZuList_Get(g_ZuFault_List, i));
    if (!fault || !fault->callback) continue;
    ZuPrint_Show(ZuString_SFormat("start callback [%s]\n", fault->name), 0);
    fault->callback();
    ZuPrint_Show(ZuString_SFormat("end callback [%s]\n", fault->name), 0);
  }
}

void releaseFault(ZuFault *fault) {
  ZuLogger_Release(fault->initLog);
  ZuLogger_Release(fault->runLog);
  ZuMem_LocalFree(fault);
}

}  // namespace

ZuFault *ZuFault_Regist(const char *name, ZuFaultCallback callback) {
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
  if (fault) fault->ignore = on;
}

int32_t ZuFault_SetInfo(ZuFault *fault, uint32_t value) {
  if (fault) fault->info = value;
  return 0;
}

int32_t ZuFault_SetInitLog(ZuFault *fault, int32_t level, int32_t unused, const char *text) {
  if (fault && !fault->ignore) ZuLogger_Append(fault->initLog, level, unused, text);
  return 0;
}

int32_t ZuFault_SetRunLog(ZuFault *fault, int32_t level, int32_t unused, const char *text) {
  if (fault && !fault->ignore) ZuLogger_Append(fault->runLog, level, unused, text);
  return 0;
}

int32_t ZuFault_SetRegist(ZuFault *fault, uint32_t id, uint32_t value) {
  return recordNumber(fault, kRegist, id, value);
}

int32_t ZuFault_SetRegist64(ZuFault *fault, uint32_t id, uint64_t value) {
  return recordNumber(fault, kRegist64, id, value);
}

int32_t ZuFault_SetRegistEx(ZuFault *fault, uint32_t id, const void *data, int32_t len) {
  return recordBytes(fault, kRegistEx, id, data, len);
}

int32_t ZuFault_SetCounter(ZuFault *fault, uint32_t id, uint32_t value) {
  return recordNumber(fault, kCounter, id, value);
}

int32_t ZuFault_SetCounter64(ZuFault *fault, uint32_t id, uint64_t value) {
  return recordNumber(fault, kCounter64, id, value);
}

int32_t ZuFault_SetCounterEx(ZuFault *fault, uint32_t id, const void *data, int32_t len) {
  return recordBytes(fault, kCounterEx, id, data, len);
}

int32_t ZuFault_SetValue(ZuFault *fault, uint32_t id, const void *data, int32_t len) {
  return recordBytes(fault, kValue, id, data, len);
}

int32_t ZuFault_ShowInitLogToBuf(ZuFault *fault, ZuBuf *buffer) {
  if (fault) ZuLogger_ShowToBuf(fault->initLog, buffer);
  return 0;
}

int32_t ZuFault_ShowRunLogToBuf(ZuFault *fault, ZuBuf *buffer) {
  if (fault) ZuLogger_ShowToBuf(fault->runLog, buffer);
  return 0;
}

int32_t ZuFault_ShowInitLog(ZuFault *fault) { return ZuFault_ShowInitLogToBuf(fault, nullptr); }

int32_t ZuFault_ShowRunLog(ZuFault *fault) { return ZuFault_ShowRunLogToBuf(fault, nullptr); }

void ZuFault_Start(void) {
  if (ZuList_Length(g_ZuFault_List) == 0 || bRunning) return;
  bRunning = true;
  runCallbacks();
  if (!writeFile()) return;
  ZuInfo_Release(g_ZuFault_Info);
  g_ZuFault_Info = nullptr;
  bRunning = false;
}
