// sequence.cpp: one long sequence of operations over the whole library, drawn from a seed, and a digest of all that
// comes out of each part: results, texts, bytes in stores and buffers, on the wire and in the fault file. It is the
// same on every target and from every compiler, as scripts/same-bytes.sh sees to.
//
//   sequence [SEED [ROUNDS]]
//
// Each part of a round draws from numbers of its own, so what differs is in the part whose digest does, or in one that
// it uses. What is a host's own is left out: addresses, the sizes of records that hold pointers, and of a comparison
// all but the sign. libc's clock and network are stood in for. Numbers are drawn one a statement, as the order in which
// arguments are worked out is the compiler's. With KEP_TEST_LOCK in the environment the library has a lock
// (Kep_SetLock). Of what the library exports KepPosix_UseThreads is not called, which belongs to the other service
// layer, and by the library only ZuHash_Cmp and ZuHash_PreFind, whose probes are the table's own.
#define _TIME_BITS 64  // as ZuTime.cpp has, whose calls are stood in for
#define _FILE_OFFSET_BITS 64
#include <kep/kep.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "ZuFault.hpp"
#include "ZuLogger.hpp"
#include "containers/codec_model.hpp"
#include "support/platform_double.hpp"

namespace {

// ---- what is drawn, and what has come out

uint64_t drawn, digest;
time_t moment = 1000000000;

uint32_t draw() {
  drawn = drawn * 6364136223846793005U + 1442695040888963407U;
  const auto mixed = static_cast<uint32_t>((drawn >> 18 ^ drawn) >> 27);
  const auto turn = static_cast<uint32_t>(drawn >> 59);
  return mixed >> turn | mixed << (-turn & 31);
}

uint32_t below(uint32_t n) { return draw() % n; }
int32_t upTo(uint32_t n) { return static_cast<int32_t>(below(n + 1)); }
bool oneIn(uint32_t n) { return below(n) == 0; }

// Mostly of the bytes that count: above 127, digits, blanks, line ends.
std::string bytes(uint32_t longest, bool isText = true) {
  std::string out(below(longest + 1), '\0');
  for (char &byte : out) {
    byte = oneIn(2) ? "0 aZ%/\n9"[below(8)] : static_cast<char>(below(256));
    if (isText && byte == '\0') byte = 'n';
  }
  return out;
}

template <typename T>
T oneOf(std::initializer_list<T> values) {
  return values.begin()[below(static_cast<uint32_t>(values.size()))];
}

void note(const void *data, size_t size) {
  for (size_t i = 0; i < size; ++i) digest = (digest ^ static_cast<const uint8_t *>(data)[i]) * 1099511628211U;
}

void note(const std::string &text) { note(text.c_str(), text.size() + 1); }

void note(int64_t number) {
  for (int shift = 56; shift >= 0; shift -= 8) {
    const auto byte = static_cast<uint8_t>(number >> shift);
    note(&byte, 1);
  }
}

void noteSign(int32_t comparison) { note(int64_t{comparison > 0} - (comparison < 0)); }

// What `show` appends to a buffer.
template <typename F>
void noteShown(F show) {
  ZuBuf *buffer = ZuBuf_New(1, 0, 100);
  show(buffer);
  note(heldBy(buffer));
  ZuBuf_Release(buffer);
}

int32_t length(const std::string &text) { return static_cast<int32_t>(text.size()); }

// ---- in libc's place

std::string datagram;  // that comes next; none when empty
uint32_t requestsLeft;

}  // namespace

extern "C" {
time_t time(time_t *) noexcept { return moment; }

int gettimeofday(timeval *now, void *) noexcept {
  now->tv_sec = moment;
  now->tv_usec = static_cast<suseconds_t>(drawn >> 45);
  return 0;
}

int usleep(useconds_t micros) {
  note(micros);
  moment += micros / 1000000 + 1;
  if (oneIn(8)) ZuTimer_Stop();
  return 0;
}

// What goes to standard output past the service layer; this program's own lines go there by another way.
ssize_t write(int fd, const void *data, size_t size) {
  if (fd != STDOUT_FILENO) return syscall(SYS_write, fd, data, size);
  const std::string text(static_cast<const char *>(data), size);
  const size_t behindAddresses = text.find("memory size");
  note(behindAddresses == std::string::npos ? text : text.substr(behindAddresses));
  return static_cast<ssize_t>(size);
}

int bind(int, const sockaddr *name, socklen_t size) noexcept {
  note(reinterpret_cast<const char *>(name) + 2, size - 2);  // behind the family, which is in native order
  return 0;
}

int connect(int, const sockaddr *name, socklen_t size) {
  note(reinterpret_cast<const char *>(name) + 2, size - 2);
  return errno = ECONNREFUSED, oneIn(9) ? -1 : 0;
}

ssize_t send(int, const void *data, size_t size, int) {
  if (oneIn(20)) return errno = oneOf({EINTR, EAGAIN, EPIPE}), -1;
  const size_t sent = oneIn(8) ? 1 + below(static_cast<uint32_t>(size)) : size;
  return note(data, sent), static_cast<ssize_t>(sent);
}

ssize_t recv(int, void *, size_t size, int) {
  if (oneIn(30)) return errno = oneOf({EINTR, EAGAIN, ECONNRESET}), -1;
  return oneIn(30) ? 0 : static_cast<ssize_t>(1 + below(static_cast<uint32_t>(size)));
}

ssize_t sendto(int, const void *data, size_t size, int, const sockaddr *to, socklen_t) {
  note(reinterpret_cast<const char *>(to) + 2, 6);
  return note(data, size), oneIn(40) ? -1 : static_cast<ssize_t>(size);
}

ssize_t recvfrom(int, void *data, size_t size, int flags, sockaddr *from, socklen_t *) {
  if (requestsLeft > 0 && --requestsLeft == 0) return Collect_Stop(), errno = EAGAIN, -1;
  uint8_t *const address = reinterpret_cast<uint8_t *>(from) + 2;
  for (int i = 0; i < 6; ++i) address[i] = static_cast<uint8_t>(below(256));
  const std::string comes = requestsLeft == 0 ? datagram : [] {
    std::string words;
    for (const uint32_t word : {oneIn(8) ? below(20) : 16, below(5), draw(), draw()}) {
      for (int shift = 24; shift >= 0; shift -= 8) words += static_cast<char>(word >> shift);
    }
    return oneIn(9) ? words.substr(0, below(16)) : words;
  }();
  std::memcpy(data, comes.data(), std::min(size, comes.size()));
  return static_cast<ssize_t>(flags & MSG_TRUNC ? comes.size() : std::min(size, comes.size()));
}

int poll(pollfd *fds, nfds_t count, int timeoutMs) {
  if (count > 0) fds[0].revents = POLLIN | POLLOUT;
  return timeoutMs >= 0 && oneIn(20) ? 0 : 1;
}
}

namespace {

// ---- the parts

void useTexts() {
  const std::string text = bytes(40), data = bytes(300, false);
  const auto number = static_cast<int32_t>(draw());
  const double real = number / 7.0;
  std::vector<char> out(4000);
  note(ZuString_Format(out.data(), "%d|%-9s|%08X|%c|%lld|%.3f|%g", number, text.c_str(), draw(), '\x80',
                       static_cast<long long>(number) * number, real, real));
  note(ZuString_SFormat("%5.1e %s", real, data.c_str()));
  note(ZuString_HFormat(out.data(), data.data(), length(data)));
  note(ZuString_SHFormat(text.data(), length(text)));
  std::string pattern = "YYYY/MM/DD hh:MI:SS yy mm dd HH mi ss ";
  for (char &c : pattern) c = oneIn(4) ? pattern[below(20)] : c;
  const int64_t second = oneIn(3) ? static_cast<int64_t>(draw()) << below(30) : number;
  note(ZuTime_Format(out.data(), pattern.c_str(), second));
  note(ZuTime_GetUTime());
  note(ZuTime_Now());
  note(ZuTime_GetTime(number));
  note(Kep_Version());
  ZuTime_Sleep(draw());
  std::string split = text;
  for (void (*const trim)(char *) : {ZuString_LTrim, ZuString_RTrim, ZuString_Trim}) trim(split.data());
  std::vector<char *> fields(50);
  const char *const delimiter = oneOf({"0", " ", "a"});
  note(ZuString_Split(split.data(), delimiter, fields.data(), upTo(3)));
  note(split.data(), split.size());

  ZuMD5 hash;
  ZuMD5_Init(&hash);
  const std::string padded = data + "pad";
  ZuMD5_Encode(hash.state, padded.data(), static_cast<uint32_t>(data.size()));
  for (const uint32_t word : hash.state) note(word);
  note(ZuMD5_Hash(padded.data(), static_cast<uint32_t>(data.size()), draw()));
}

void *asValue(uint32_t number) { return reinterpret_cast<void *>(uintptr_t{number}); }
int64_t asNumber(const void *value) { return static_cast<int64_t>(reinterpret_cast<uintptr_t>(value)); }

void useMemory() {
  const int32_t capacity = upTo(300);
  ZuMem *object = ZuMem_New(capacity, oneIn(5));
  for (int i = 0; i < 8; ++i) {
    const std::string data = bytes(60, false);
    const uint32_t at = below(300), to = below(300), size = static_cast<uint32_t>(data.size());
    char out[60] = "";
    note(ZuMem_memcpy(object, at, data.data(), size));
    ZuMem_memset(object, to, static_cast<int32_t>(to), below(9));
    note(ZuMem_memget(object, below(300), out, size));
    note(out, sizeof out);
    if (ZuMem_Get(object, at + size)) noteSign(ZuMem_memcmp(object, at, data.data(), size));
    if (oneIn(4)) object = ZuMem_realloc(object, upTo(500));
  }
  ZuMem_Release(object);
  void *block = ZuMem_Malloc(20, below(2000));
  ZuMem_Malloc(21, below(2000));
  if (oneIn(20)) ZuMem_Malloc_Static(22, 600000 + below(9));  // not of the pool, which may grow at another time
  ZuMem_LocalFree(std::memset(ZuMem_LocalMalloc(40), 1, 40));
  note(asNumber(std::memset(ZuMem_LocalMalloc_Static(21), 1, 21)) & 3);
  ZuMem_Show();
  const std::string shown = platform::takePrinted();  // the other accounts hold records of the host's sizes
  for (const char *line : {"\n   20", "\n   21", "\n   22"}) {
    const size_t at = shown.find(line);
    note(at == std::string::npos ? "none" : shown.substr(at, shown.find('\n', at + 1) - at));
  }
  ZuMem_Free(20, block);

  char buffer[20];
  ZuPrint *print = ZuPrint_New(buffer, 2 + upTo(18));
  for (int i = 0; i < 20; ++i) {
    const std::string text = bytes(25);
    ZuPrint_SetPrint(print, oneIn(4) ? 0 : 1);
    ZuPrint_PrintCh(print, (text + "-")[0], upTo(30));
    ZuPrint_Print(print, text.c_str(), upTo(3));
    void (*const show)(const char *, int32_t) = oneOf({ZuPrint_Show, ZuPrint_ShowEx, ZuPrint_Puts});
    show(text.c_str(), oneIn(2) ? 0 : length(text));
    if (oneIn(9)) ZuPrint_Flush(print);
  }
  ZuPrint_Release(print);
}

int32_t differsFrom(void *value, const void *key) {
  return static_cast<int32_t>((asNumber(value) ^ asNumber(key)) & 7);
}

void useLists() {
  ZuList *list = ZuList_New(upTo(9), [](void *value) { note(asNumber(value)); });
  for (int i = 0; i < 200; ++i) {
    const int32_t at = upTo(static_cast<uint32_t>(ZuList_Length(list)) + 2) - 1;
    void *const value = asValue(draw());
    if (oneIn(99)) ZuList_RemoveAll(list);
    switch (below(8)) {
      case 0: note(asNumber(ZuList_Remove(list, at))); break;
      case 1: note(asNumber(ZuList_Set(list, at, value))); break;
      case 2: note(asNumber(oneIn(2) ? ZuList_Popup(list) : ZuList_PopTail(list))); break;
      case 3: note(ZuList_Append(list, value)); break;
      case 4: note(ZuList_Push(list, value)); break;
      case 5: note(ZuList_FindPos(list, differsFrom, value)); break;
      case 6: note(asNumber(ZuList_Find(list, differsFrom, value))); break;
      default: note(ZuList_Insert(list, at, value));
    }
    note(asNumber(ZuList_Get(list, at)));
  }
  ZuList_Release(list);
}

void useHash() {
  const uint32_t keySize = 1 + below(12), valueSize = below(9);
  const auto keyBytes = static_cast<int32_t>(keySize), valueBytes = static_cast<int32_t>(valueSize);
  const uint32_t buckets = below(20);
  const ZuHashFunc byLast = [](const void *key, uint32_t size, uint32_t) -> uint32_t {
    return static_cast<const uint8_t *>(key)[size - 1];
  };
  ZuHash *table = oneIn(2) ? ZuHash_New(keyBytes, valueBytes, buckets, nullptr)
                           : ZuHash_NewEx(keyBytes, valueBytes, buckets, byLast, oneIn(2));
  for (int i = 0; i < 100; ++i) {
    std::string key = bytes(1, false), value = bytes(8, false);
    key.resize(keySize + 3, 'k');
    value.resize(8, 'v');
    void *found = nullptr;
    if (oneIn(4)) ZuHash_Delete(table, key.data());
    if (!oneIn(3)) note(ZuHash_Set(table, key.data(), value.data()));
    if (ZuHash_Get(table, key.data(), &found)) note(found, valueSize);
  }
  void *key = ZuHash_Find(
      table, [](const void *, void *, void *) { return static_cast<int32_t>(below(9)); }, nullptr);
  if (key) note(ZuHash_ShowNode(key, table));
  ZuHash_Show(table);
  ZuHash_ShowDepth(table);
  ZuHash_Release(table);

  const uint32_t capacity = 1 + below(300);
  ZuSet *set = ZuSet_New(capacity);
  for (int i = 0; i < 100; ++i) {
    const uint32_t index = below(capacity + 2);
    note(ZuSet_Set(set, index, upTo(1)));
    note(ZuSet_Get(set, below(capacity + 2)));
  }
  ZuSet_Release(set);
}

void useBuffers() {
  const uint32_t size = 1 + below(5), count = below(30);
  ZuBuf *buffer = ZuBuf_New(size, count, below(50));
  for (int i = 0; i < 30; ++i) {
    const std::string data = bytes(90, false) + std::string(size, 'x');
    const auto elements = static_cast<uint32_t>(data.size()) / size;
    note(oneIn(3) ? ZuBuf_Set(buffer, below(100), data.data(), elements) : ZuBuf_Append(buffer, data.data(), elements));
    void *out = nullptr;
    const uint32_t left = ZuBuf_Get(buffer, below(100), &out);
    if (left > 0) note(out, (left - 1) * size);
    if (oneIn(15)) ZuBuf_Clear(buffer);
  }
  note(ZuBuf_Length(buffer));
  ZuBuf_Release(buffer);
}

template <typename T>
void noteNumber(const void *cell) {
  T number;
  std::memcpy(&number, cell, sizeof number);
  note(static_cast<int64_t>(number));
}

void useTables() {
  void (*const noteAs[])(const void *) = {noteNumber<double>, noteNumber<float>, noteNumber<int32_t>,
                                          noteNumber<int64_t>,
                                          [](const void *cell) { note(static_cast<const char *>(cell)); }};
  ZuTable *table = ZuTable_New();
  const std::string caption = bytes(120);
  ZuTable_SetCaption(table, caption.c_str());
  std::vector<int32_t> types(1 + below(6));
  for (int32_t column = 0; column < static_cast<int32_t>(types.size()); ++column) {
    const int32_t type = types[static_cast<size_t>(column)] = upTo(4);
    const std::string name = bytes(20);
    const char *const format = type < 2   ? oneOf({"%.2f", "%9.4f", "%g", "%.0f", "%e"})
                               : type < 3 ? oneOf({"%d", "%u", "%08X", "%c"})
                               : type < 4 ? oneOf({"%lld", "%016llx"})
                                          : oneOf({"%s", "%-9s"});
    ZuTable_SetTitle(table, column, name.c_str(), type, format, oneOf({'L', 'r', 'c'}));
  }
  for (int i = 0; i < 40; ++i) {
    const auto column = below(static_cast<uint32_t>(types.size()));
    const int64_t number = static_cast<int64_t>(draw()) << below(30);
    const double real = static_cast<double>(number - (int64_t{1} << 40)) / 3;
    const auto narrow = static_cast<float>(real);
    const auto half = static_cast<int32_t>(number);
    const std::string text = bytes(110);
    const void *const values[] = {&real, &narrow, &half, &number, text.c_str()};
    ZuTable_Set(table, upTo(12), static_cast<int32_t>(column), values[types[column]]);
    if (oneIn(9)) ZuTable_Sum(table);
    const void *const cell = ZuTable_Get(table, upTo(12), static_cast<int32_t>(column));
    if (cell) noteAs[types[column]](cell);
  }
  note(ZuTable_GetRowNum(table) * 100 + ZuTable_GetColNum(table));
  char out[3000];
  const int32_t drawnSize = ZuTable_ShowToBuffer(table, out, upTo(sizeof out));
  note(out, static_cast<size_t>(drawnSize));
  if (oneIn(3)) ZuTable_ClearLines(table);
  if (oneIn(9)) ZuTable_Clear(table);
  ZuTable_Show(table);
  noteShown([table](ZuBuf *buffer) { ZuTable_ShowToBuf(table, buffer); });
  ZuTable_Release(table);
}

void useCodec() {
  std::string format;
  for (uint32_t i = below(8); i > 0; --i) {
    format += std::to_string(below(40));
    format += "BbHhIiTSs."[below(10)];
  }
  const auto fields = codec::parse(format);
  const std::string layout = codec::fill(fields, bytes(50, false) + "+"), dump = "*" + format;
  std::vector<char> packed(layout.size() + 1);
  note(codec::pack(packed.data(), format.c_str(), fields, layout.data()));
  note(packed.data(), packed.size());
  int32_t count = 0;
  note(ZuBuffer_GetPackSize(format.c_str(), &count));
  note(ZuBuffer_UNPack(dump.c_str(), packed.data()));
  note(codec::unpackDifference(format.c_str(), fields, packed.data(), draw()));
}

void addRecord(ZuInfo *store) {
  const std::string key = bytes(oneIn(9) ? 255 : 3), value = bytes(oneIn(9) ? 2000 : 50), more = bytes(20, false);
  const uint32_t code = draw();
  switch (below(6)) {
    case 0: note(ZuInfo_Append(store, key.data(), length(key), more.data(), length(more))); break;
    case 1: note(ZuInfo_Write(store, key.c_str(), value.c_str())); break;
    case 2:
      note(ZuInfo_Append2Message(store, key.data(), length(key), value.data(), length(value), more.data(),
                                 length(more)));
      break;
    case 3:
      if (ZuInfo_PackPre(store, "IH", 2, 6) == 0) break;
      ZuBuffer_Pack(ZuMem_Get(store->block, store->writeOffset), "IH", code, code);
      store->writeOffset += 6;
      store->freeSize -= 6;
      break;
    default:
      ZuInfo_AddInfo(store, code >> 30, upTo(3), more.data(), length(more), value.data(), length(value), key.data(),
                     length(key), code & 3);
  }
}

void useStore() {
  static ZuInfo *store;
  if (oneIn(9)) ZuInfo_Release(std::exchange(store, nullptr));
  if (!store) store = ZuInfo_New(4096);
  for (int i = 0; i < 40; ++i) {
    ++moment;
    ZuInfo_Ignore(store, oneIn(30));
    if (oneIn(90)) note(ZuInfo_ReSize(store, below(20000)));
    if (oneIn(99)) ZuInfo_Clear(store);
    if (oneIn(9)) note(ZuInfo_FreeSize_(store, upTo(2000)));
    const int32_t id = upTo(2100) - 50, mode = upTo(4);
    ZuInfo_SetFlag(store, id, mode);
    note(ZuInfo_GetFlag(store, id));
    addRecord(store);
  }
  const uint8_t *key, *value;
  uint8_t keyLength;
  uint16_t valueLength;
  for (int32_t cursor = -1; ZuInfo_Get(store, "TB", 2, &cursor, &key, &keyLength, &value, &valueLength);) {
    note(key, keyLength);
    note(value, valueLength);
  }
  char format[256];
  for (int32_t cursor = -1; ZuInfo_GetPack(store, &cursor, format, &value);) {
    note(format);
    if (std::strncmp(format, "*TBhI", 5) == 0) note(ZuBuffer_UNPack(format, value));
  }
  for (const uint32_t field : {store->limit, store->writeOffset, store->readOffset, ZuInfo_GetEvicted(store)})
    note(field);
  note(store->freeSize);
  note(store->idSwitches, sizeof store->idSwitches);
  const int32_t id = upTo(4) - 1, code = upTo(3) - 1, type = upTo(2), skip = upTo(3), limit = upTo(20);
  ZuInfo_ShowInfo(store, id, oneOf({"", "0", "30"}), nullptr, code, type, skip, limit);
}

ZuLogger *keeping(bool isNew = false) {
  static ZuLogger *log;
  if (isNew) ZuLogger_Release(std::exchange(log, nullptr));
  return log ? log : log = ZuLogger_New(ZULOGGER_ACCEPT_ALL | ZULOGGER_KEEP);
}

void useLogs() {
  ZuLogger *const log = keeping(oneIn(9));
  ZuLogger_SetInfoSize(log, 3000);
  for (int i = 0; i < 20; ++i) {
    const std::string line = bytes(oneIn(9) ? 1200 : 60);
    const int32_t level = upTo(5);
    moment += upTo(100000);
    ZuLogger_SetFlag(log, draw());
    ZuLogger_Ignore(log, oneIn(9));
    oneIn(2) ? ZuLogger_Header(log, line.c_str()) : ZuLogger_Tail(log);
    ZuLogger_SetFileName(log, line.c_str());
    ZuLogger_SetUDP(log, line.c_str(), level);
    if (oneIn(2))
      ZuLogger_Append(log, level, 0, line.c_str());
    else
      note(ZuLogger_Write(log, level, line.c_str()));
  }
  for (const char *kept : {log->fileName, log->udpHost, log->headers[0]}) note(kept);
  note(log->udpPort + log->headerDepth * 10);
  for (const auto show : {ZuLogger_CopyToBuf, ZuLogger_ShowToBuf}) {
    noteShown([&](ZuBuf *buffer) { show(log, buffer); });
  }
  ZuLogger_ShowInfo(log);
  ZuLogger_Dump(log->store);
  if (oneIn(9)) ZuLogger_ClearInfo(log);
}

void useFunctionLogs() {
  static ZuFuncLogEntry table[] = {{"read", "I4S", 0, "(at, what)"}, {"\x80", "bhT3s", 0, nullptr}};
  static ZuFuncLog *calls;
  if (oneIn(9)) ZuFuncLog_Release(std::exchange(calls, nullptr));
  if (!calls) calls = ZuFuncLog_New(table, 2, 2000);
  ZuFuncLog_Ignore(calls, upTo(1));
  note(calls->ignore);
  for (int i = 0; i < 9; ++i) {
    const char function = static_cast<char>(below(20) / 9);
    const std::string data = bytes(16, false);
    ZuInfo_Append(calls->store, &function, 1, data.data(), length(data));
  }
  const int32_t id = upTo(3) - 1, skip = upTo(9);
  const uint8_t *value;
  int32_t of, size;
  for (int32_t cursor = -1; ZuFuncLog_Get(calls, id, &cursor, &of, &value, &size);
       note(value, static_cast<size_t>(size)))
    note(of);
  const char *const name = oneOf<const char *>({"read", "none", nullptr});
  ZuFuncLog_Show(calls, name, skip, upTo(30));
  ZuFuncLog_ShowFunc(calls);
}

ZuFault *faultOf(uint32_t number) {
  static ZuFault *const faults[] = {ZuFault_Regist("one", [] { note(1); }),
                                    ZuFault_Regist("a name far too long for it", nullptr)};
  return faults[number];
}

void useFaults(const std::string &file) {
  for (int i = 0; i < 30; ++i) {
    ZuFault *const fault = faultOf(below(2));
    const std::string data = bytes(40, false), line = bytes(30);
    const uint32_t id = draw();
    const uint64_t value = uint64_t{draw()} << below(32);
    ZuFault_SetLogSize(fault, 2048);
    const auto small = static_cast<uint32_t>(value);
    const int32_t level = upTo(4);
    ZuFault_Ignore(fault, oneIn(9));
    ZuFault_SetInfo(fault, id);
    switch (below(4)) {
      case 0: oneOf({ZuFault_SetInitLog, ZuFault_SetRunLog})(fault, level, 0, line.c_str()); break;
      case 1: oneOf({ZuFault_SetRegist, ZuFault_SetCounter})(fault, id, small); break;
      case 2: oneOf({ZuFault_SetRegist64, ZuFault_SetCounter64})(fault, id, value); break;
      default:
        oneOf({ZuFault_SetRegistEx, ZuFault_SetCounterEx, ZuFault_SetValue})(fault, id, data.data(), length(data));
    }
  }
  const std::string path = oneIn(9) ? file + "/none" : file;
  note(ZuFault_SetFile(path.c_str(), upTo(1)));
  ZuFault_Start();
  note(ZuFault_GetResult());
  note(contentOf(file));
  unlink(file.c_str());
  note(faultOf(1)->info);
  oneOf({ZuFault_ShowInitLog, ZuFault_ShowRunLog})(faultOf(0));
  for (const auto show : {ZuFault_ShowInitLogToBuf, ZuFault_ShowRunLogToBuf}) {
    noteShown([show](ZuBuf *buffer) { show(faultOf(0), buffer); });
  }
}

void useNetwork() {
  const int fd = ZuSock_UDP_Create("127.0.0.1", 7);
  datagram = oneIn(2) ? std::to_string(draw()) : bytes(40);
  const std::string text = bytes(30);
  char out[1100] = "", address[20] = "10.0.0.1";
  int port = upTo(70000);
  note(ZuSock_UDP_SendMessage(fd, oneOf({"<BROADCAST>", "1.2.3.4", "no address"}), port, text.data(), length(text)));
  note(ZuSock_UDP_RecvMessage(fd, address, &port, out, upTo(50)));
  note(ZuSock_UDP_GetMessage(fd, address, &port, out, 4, 60, 5000));
  ZuSock_UDP_Close(fd);
  note(address + std::string(out));
  note(port);
  note(ZuConfig_Get(text.c_str(), "key", text.c_str()));
  ZuConfig_GetString("section", text.c_str(), "default", out);
  note(out);
  note(ZuConfig_GetInt("section", "key", static_cast<int32_t>(draw())));
  note(ZuConfig_GetUInt("section", "key", draw()));
}

template <int kItem>
int32_t report(int32_t argument) {
  CollectItem *const item = g_collect_param.items[kItem];
  if (oneIn(3)) Collect_BeginSection(item, static_cast<int32_t>(draw()));
  for (uint32_t i = below(12); i > 0; --i) {
    const std::string data = bytes(oneIn(9) ? 3000 : 90);
    const auto key = static_cast<int32_t>(draw());
    switch (below(7)) {
      case 0: Collect_PutInt(item, key, argument); break;
      case 1: Collect_PutLong(item, key, static_cast<int64_t>(uint64_t{draw()} << below(33))); break;
      case 2: Collect_PutString(item, key, data.c_str(), oneIn(2) ? length(data) : 0); break;
      case 3: Collect_PutStruct(item, key, data.data(), length(data)); break;
      case 4: Collect_PutRunLog(item, key, faultOf(0)); break;
      case 5: Collect_PutInitLog(item, key, faultOf(0)); break;
      default: Collect_PutLog(item, key, keeping());
    }
  }
  Collect_EndSection(item);
  return 0;
}

// As a host with a poll loop of its own does, and then record by record.
void collectByHand() {
  requestsLeft = 2;
  const int fd = CollectClient_Init();
  uint32_t type = 0;
  char address[20] = "";
  int32_t port = 0;
  const int32_t sequence = CollectClient_WaitFor(fd, 0, 0, &type, address, &port);
  close(fd);
  note(address);
  note(type == COLLECTCLIENT_SELFTEST ? Collect_SelfTest(address, port, sequence, 1, 2)
                                      : Collect_Start(address, port, static_cast<int32_t>(type), sequence, 1, 2));
  note(CollectClient_Start(address, port));
  for (uint32_t i = below(40); i > 0; --i) {
    const std::string data = bytes(oneIn(9) ? 3000 : 90);
    const auto number = static_cast<int32_t>(draw());
    switch (below(9)) {
      case 0: CollectClient_SetType(number); break;
      case 1: note(CollectClient_AppendInt(number)); break;
      case 2: CollectClient_AppendString(data.c_str()); break;
      case 3: CollectClient_AppendBuffer(data.data(), length(data)); break;
      case 4: CollectClient_CollectInt(1, number, 2, number); break;
      case 5: CollectClient_CollectLong(number, 1, number, -int64_t{number} * number); break;
      case 6: note(CollectClient_CollectString(1, 2, number, data.c_str(), oneIn(2) ? length(data) : 0)); break;
      case 7: note(CollectClient_CollectBuffer(1, 2, number, data.data(), length(data))); break;
      default: note(CollectClient_Flush(number & 1 ? number : 0));
    }
  }
  CollectClient_End();
}

void collect() {
  static CollectItem *const items[] = {Collect_New("\x80 first", report<0>, report<0>),
                                       Collect_New("a name longer than it holds", report<1>, nullptr)};
  note(items[1]->name);
  CollectItem *const brief =
      Collect_New("goes at once", nullptr, [](int32_t) { return Collect_Release(g_collect_param.items[2]), 0; });
  CollectClient_SetTrace(upTo(3));
  const int32_t port = upTo(70000);
  note(Collect_SetAddress(oneOf<const char *>({nullptr, "10.0.0.9", "nowhere"}), port));
  Collect_SetLogSize(4096);
  const int32_t limit = upTo(1) * 900000;
  CollectClient_SetTimeout(limit, limit, limit);
  Collect_SetAccess([](const char *address, int32_t port, int32_t type) {
    note(address);
    return static_cast<int32_t>((port + type) % 9);
  });
  collectByHand();
  requestsLeft = 2 + below(9);
  note(Collect_Init(draw()));
  Collect_Release(brief);
  CollectStats stats;
  Collect_GetStats(&stats);
  for (const uint32_t count : {stats.datagrams, stats.dropped, stats.refused, stats.finishedRuns, stats.failedRuns}) {
    note(count);
  }
  Collect_ShowLog();
}

void useTimers() {
  static const int32_t made = ZuTimer_Regist([](int32_t interval) { return note(interval), upTo(9); }, 3000);
  if (oneIn(3))
    note(made + ZuTimer_Regist([](int32_t interval) { return note(interval), upTo(4); }, draw() >> below(32)));
  ZuTimer_Stop();  // one with those of other parts' sleeps, and taken at once
  ZuTimer_Loop();
  ZuTimer_Loop();
  ZuTimer_Show();
}

}  // namespace

int main(int argc, char **argv) {
  setenv("TZ", "UTC0", 1);
  static std::string file = std::string(argv[0]) + ".faults";
  const struct {
    const char *name;
    void (*use)();
  } parts[] = {{"texts, dates and hashes", useTexts},
               {"memory and prints", useMemory},
               {"lists", useLists},
               {"hashes and sets", useHash},
               {"buffers", useBuffers},
               {"tables", useTables},
               {"the codec", useCodec},
               {"stores", useStore},
               {"logs", useLogs},
               {"function logs", useFunctionLogs},
               {"faults", [] { useFaults(file); }},
               {"sockets and configuration", useNetwork},
               {"collection", collect},
               {"timers", useTimers}};
  const uint64_t seed = argc > 1 ? std::strtoull(argv[1], nullptr, 0) : 1;
  const long rounds = argc > 2 ? std::atol(argv[2]) : 100;
  std::vector<uint64_t> digests(std::size(parts), 14695981039346656037U);
  for (long round = 0; round < rounds; ++round) {
    for (size_t part = 0; part < digests.size(); ++part) {
      drawn = (seed * 1000003 + static_cast<uint64_t>(round)) * 101 + part;
      moment = static_cast<time_t>(1000000000 + round * 10000019);
      digest = digests[part];
      parts[part].use();
      ZuPrint_ShowEx("\n", 0);        // nothing is held for the next part
      note(platform::takePrinted());  // with a lock in other pieces
      for (const uint32_t delay : platform::takeDelays()) note(delay);
      digests[part] = digest;
    }
  }
  for (size_t part = 0; part < digests.size(); ++part) {
    std::printf("%016llx %s\n", static_cast<unsigned long long>(digests[part]), parts[part].name);
  }
}
