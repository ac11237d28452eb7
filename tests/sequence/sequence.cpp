// sequence.cpp: one long sequence of operations over the whole library, drawn from a seed, and a digest of all that
// comes out of each part: results, texts, bytes in stores and buffers, on the wire and in the fault file. It is the
// same on every target and from every compiler, as scripts/same-bytes.sh sees to.
//
//   sequence [SEED [ROUNDS]]
//
// Each part of a round draws from numbers of its own, so what differs is in the part whose digest does, or in one that
// it uses. What is a host's own is left out: addresses, the sizes of records that hold pointers, and of a comparison
// all but the sign. libc's clock and network are stood in for. Numbers are drawn one a statement, as the order in which
// arguments are worked out is the compiler's.
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
  if (fd == STDOUT_FILENO) note(data, size);
  return fd == STDOUT_FILENO ? static_cast<ssize_t>(size) : syscall(SYS_write, fd, data, size);
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
  ZuTime_Sleep(draw());
  std::string split = text;
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

void useMemory() {
  ZuMem *object = ZuMem_New(upTo(300), 0);
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
  ZuMem_Show();
  const std::string shown = platform::takePrinted();  // the other accounts hold records of the host's sizes
  for (const char *line : {"\n   20", "\n   21"}) {
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
  }
  ZuPrint_Release(print);
}

void *asValue(uint32_t number) { return reinterpret_cast<void *>(uintptr_t{number}); }
int64_t asNumber(const void *value) { return static_cast<int64_t>(reinterpret_cast<uintptr_t>(value)); }

int32_t differsFrom(void *value, const void *key) {
  return static_cast<int32_t>((asNumber(value) ^ asNumber(key)) & 7);
}

void useLists() {
  ZuList *list = ZuList_New(upTo(9), [](void *value) { note(asNumber(value)); });
  for (int i = 0; i < 200; ++i) {
    const int32_t at = upTo(static_cast<uint32_t>(ZuList_Length(list)) + 2) - 1;
    void *const value = asValue(draw());
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
  ZuHash *table = ZuHash_New(static_cast<int32_t>(keySize), static_cast<int32_t>(valueSize), below(20), nullptr);
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
  if (key) note(key, keySize + valueSize);
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

void useTables() {
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
  }
  char out[3000];
  const int32_t drawnSize = ZuTable_ShowToBuffer(table, out, upTo(sizeof out));
  note(out, static_cast<size_t>(drawnSize));
  if (oneIn(3)) ZuTable_ClearLines(table);
  ZuTable_Show(table);
  ZuBuf *buffer = ZuBuf_New(1, 0, 100);
  ZuTable_ShowToBuf(table, buffer);
  note(heldBy(buffer));
  ZuBuf_Release(buffer);
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
  static ZuInfo *const store = ZuInfo_New(4096);
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
  for (const uint32_t field : {store->limit, store->writeOffset, store->readOffset, ZuInfo_GetEvicted(store)})
    note(field);
  note(store->freeSize);
  note(store->idSwitches, sizeof store->idSwitches);
  const int32_t id = upTo(4) - 1, code = upTo(3) - 1, type = upTo(2), skip = upTo(3), limit = upTo(20);
  ZuInfo_ShowInfo(store, id, oneOf({"", "0", "30"}), nullptr, code, type, skip, limit);
}

ZuLogger *keeping() {
  static ZuLogger *const log = ZuLogger_New(ZULOGGER_ACCEPT_ALL | ZULOGGER_KEEP);
  return log;
}

void useLogs() {
  ZuLogger *const log = keeping();
  ZuLogger_SetInfoSize(log, 3000);
  for (int i = 0; i < 20; ++i) {
    const std::string line = bytes(oneIn(9) ? 1200 : 60);
    const int32_t level = upTo(5);
    moment += upTo(100000);
    ZuLogger_SetFlag(log, draw());
    if (oneIn(2))
      ZuLogger_Append(log, level, 0, line.c_str());
    else
      note(ZuLogger_Write(log, level, line.c_str()));
  }
  ZuBuf *buffer = ZuBuf_New(1, 0, 1000);
  ZuLogger_CopyToBuf(log, buffer);
  note(heldBy(buffer));
  ZuBuf_Release(buffer);
  ZuLogger_ShowInfo(log);
  if (oneIn(9)) ZuLogger_ClearInfo(log);

  static ZuFuncLogEntry table[] = {{"read", "I4S", 0, "(at, what)"}, {"\x80", "bhT3s", 0, nullptr}};
  static ZuFuncLog *const calls = ZuFuncLog_New(table, 2, 2000);
  for (int i = 0; i < 9; ++i) {
    const char function = static_cast<char>(below(20) / 9);
    const std::string data = bytes(16, false);
    ZuInfo_Append(calls->store, &function, 1, data.data(), length(data));
  }
  const int32_t skip = upTo(9);
  ZuFuncLog_Show(calls, "read", skip, upTo(30));
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
    switch (below(9)) {
      case 0: ZuFault_SetInitLog(fault, upTo(4), 0, line.c_str()); break;
      case 1: ZuFault_SetRunLog(fault, upTo(4), 0, line.c_str()); break;
      case 2: ZuFault_SetRegist(fault, id, static_cast<uint32_t>(value)); break;
      case 3: ZuFault_SetRegist64(fault, id, value); break;
      case 4: ZuFault_SetRegistEx(fault, id, data.data(), length(data)); break;
      case 5: ZuFault_SetCounter(fault, id, static_cast<uint32_t>(value)); break;
      case 6: ZuFault_SetCounter64(fault, id, value); break;
      case 7: ZuFault_SetCounterEx(fault, id, data.data(), length(data)); break;
      default: ZuFault_SetValue(fault, id, data.data(), length(data));
    }
  }
  note(ZuFault_SetFile(file.c_str(), upTo(1)));
  ZuFault_Start();
  note(ZuFault_GetResult());
  note(contentOf(file));
  unlink(file.c_str());
  ZuFault_ShowRunLog(faultOf(0));
}

void useNetwork() {
  static const int fd = ZuSock_UDP_Create("127.0.0.1", 7);
  datagram = oneIn(2) ? std::to_string(draw()) : bytes(40);
  const std::string text = bytes(30);
  char out[1100] = "", address[20] = "10.0.0.1";
  int port = upTo(70000);
  note(ZuSock_UDP_SendMessage(fd, oneOf({"<BROADCAST>", "1.2.3.4", "no address"}), port, text.data(), length(text)));
  note(ZuSock_UDP_RecvMessage(fd, address, &port, out, upTo(50)));
  note(ZuSock_UDP_GetMessage(fd, address, &port, out, 4, 60, 5000));
  note(address + std::string(out));
  note(port);
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
    switch (below(6)) {
      case 0: Collect_PutInt(item, key, argument); break;
      case 1: Collect_PutLong(item, key, static_cast<int64_t>(uint64_t{draw()} << below(33))); break;
      case 2: Collect_PutString(item, key, data.c_str(), oneIn(2) ? length(data) : 0); break;
      case 3: Collect_PutStruct(item, key, data.data(), length(data)); break;
      case 4: Collect_PutRunLog(item, key, faultOf(0)); break;
      default: Collect_PutLog(item, key, keeping());
    }
  }
  Collect_EndSection(item);
  return 0;
}

void collect() {
  static CollectItem *const items[] = {Collect_New("\x80 first", report<0>, report<0>),
                                       Collect_New("a name longer than it holds", report<1>, nullptr)};
  note(items[1]->name);
  Collect_SetLogSize(4096);
  const int32_t limit = upTo(1) * 900000;
  CollectClient_SetTimeout(limit, limit, limit);
  Collect_SetAccess([](const char *address, int32_t port, int32_t type) {
    note(address);
    return static_cast<int32_t>((port + type) % 9);
  });
  requestsLeft = 2 + below(9);
  note(Collect_Init(draw()));
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
      ZuPrint_ShowEx("\n", 0);  // nothing is held for the next part
      for (const std::string &text : platform::takePrintCalls()) note(text);
      for (const uint32_t delay : platform::takeDelays()) note(delay);
      digests[part] = digest;
    }
  }
  for (size_t part = 0; part < digests.size(); ++part) {
    std::printf("%016llx %s\n", static_cast<unsigned long long>(digests[part]), parts[part].name);
  }
}
