// stack.cpp: what the library takes while it works, on the board: of stack each exported function, and of memory each
// thing that it keeps. Prints one line a figure, "stack NAME BYTES" or "memory NAME BYTES"; scripts/size.sh reads them.
//
// A function runs on a stack of its own, painted before; how far the paint is gone is what it took, the C library's
// frames included. The service layer and the callbacks are the host's: they take next to nothing here, and what cannot
// leaves for the program's own stack.
#include <arpa/inet.h>
#include <kep/kep.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <ucontext.h>
#include <unistd.h>

#include <cfloat>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// ---- the painted stack

constexpr unsigned char kPaint = 0xA5;
alignas(16) unsigned char l_stack[64 * 1024];
const unsigned char *l_begin;  // where the function's own frames begin
void (*l_call)();
void (*l_errand)();  // to be run on the program's own stack
bool l_isPainted;    // we are on the painted one
ucontext_t l_own, l_painted;

void runCall() { l_call(); }

int64_t l_second = 1700000000;

// Second and zone are others at each call: what was kept of them is of no use.
void changeTime() {
  ++l_second;
  setenv("TZ", "Europe/Paris", 1);
  tzset();
  setenv("TZ", "Europe/Berlin", 1);
}

size_t depthOf(void (*call)()) {
  changeTime();
  std::memset(l_stack, kPaint, sizeof l_stack);
  getcontext(&l_painted);
  l_painted.uc_stack.ss_sp = l_stack;
  l_painted.uc_stack.ss_size = sizeof l_stack;
  l_painted.uc_link = &l_own;
  makecontext(&l_painted, runCall, 0);
  l_call = call;
  do {
    l_errand = nullptr;
    l_isPainted = true;
    swapcontext(&l_own, &l_painted);
    l_isPainted = false;
    if (l_errand) l_errand();
  } while (l_errand);
  const unsigned char *deepest = l_stack;
  while (*deepest == kPaint) ++deepest;
  if (deepest == l_stack) std::abort();  // the whole stack was not enough
  return static_cast<size_t>(l_begin - deepest);
}

// Ends a call that would not return.
void leave() { setcontext(&l_own); }

void printStack(const char *call, void (*run)()) {
  std::printf("stack %.*s %zu\n", static_cast<int>(std::strcspn(call, "(")), call, depthOf(run));
}

// Prints the stack of a call, which may name nothing but statics.
#define STACK(...)                                                      \
  printStack(#__VA_ARGS__, [] {                                         \
    l_begin = static_cast<unsigned char *>(__builtin_frame_address(0)); \
    static_cast<void>(__VA_ARGS__);                                     \
  })

// ---- memory

constexpr uint32_t kHeader = 8;
alignas(16) unsigned char l_memory[48 << 20];  // given out once, from the front
uint32_t l_used;
int32_t l_held;  // bytes that the library holds, its own headers included

// Prints what each of `count` things takes that `make` makes.
void printMemory(const char *name, int32_t count, void (*make)(int32_t)) {
  const int32_t before = l_held;
  for (int32_t i = 0; i < count; ++i) make(i);
  std::printf("memory %s %.1f\n", name, static_cast<double>(l_held - before) / count);
}

}  // namespace

// ---- the service layer

void *VRK_Malloc(uint32_t size) {
  unsigned char *block = l_memory + l_used;
  l_used += (kHeader + size + 7) / 8 * 8;
  if (l_used > sizeof l_memory) std::abort();
  *reinterpret_cast<uint32_t *>(block) = size;
  l_held += static_cast<int32_t>(size);
  return block + kHeader;
}

void VRK_Free(void *block) { l_held -= *reinterpret_cast<int32_t *>(static_cast<unsigned char *>(block) - kHeader); }

int VRK_RawPrint(const char *, ...) { return 0; }

void VRK_Delay(uint32_t) {}

int PLM_snprintf(char *buffer, size_t size, const char *format, ...) {
  static struct {
    char *buffer;
    size_t size;
    const char *format;
    va_list args;
    int result;
  } print;
  print.buffer = buffer, print.size = size, print.format = format;
  va_start(print.args, format);
  void (*const errand)() = [] { print.result = std::vsnprintf(print.buffer, print.size, print.format, print.args); };
  if (l_isPainted) {
    l_errand = errand;
    swapcontext(&l_painted, &l_own);
  } else {
    errand();
  }
  va_end(print.args);
  return print.result;
}

// ---- the system

extern "C" int64_t __wrap___time64(int64_t *) { return l_second; }

extern "C" ssize_t __real_sendto(int, const void *, size_t, int, const sockaddr *, socklen_t);

// A broadcast may have no way out of this machine, nor an answer.
extern "C" ssize_t __wrap_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to,
                                 socklen_t toSize) {
  static sockaddr_in loopback;
  std::memcpy(&loopback, to, sizeof loopback);
  if (loopback.sin_addr.s_addr == INADDR_BROADCAST) loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return __real_sendto(fd, data, size, flags, reinterpret_cast<const sockaddr *>(&loopback), toSize);
}

namespace {

constexpr char kLoopback[] = "127.0.0.1";
constexpr int kConfigPort = 8999;

sockaddr_in loopbackPort(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int makeSocket(int type, int port) {
  const int fd = socket(AF_INET, type, 0);
  const sockaddr_in address = loopbackPort(port);
  if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    std::perror("stack: bind");
    std::exit(1);
  }
  return fd;
}

int portOf(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
  return ntohs(address.sin_port);
}

// Runs the other side of the network in a process of its own, which does not outlive this one for long.
template <typename Serve>
pid_t startServer(const Serve &serve) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child != 0) return child;
  alarm(60);
  for (;;) serve();
}

// A connection that the server has closed counts as acknowledged.
void serveRun(int listener) {
  char data[4096];
  const int fd = accept(listener, nullptr, nullptr);
  shutdown(fd, SHUT_WR);
  while (read(fd, data, sizeof data) > 0) {
  }
  close(fd);
}

void answerQuery(int fd) {
  char query[1000];
  sockaddr_in client{};
  socklen_t size = sizeof client;
  recvfrom(fd, query, sizeof query, 0, reinterpret_cast<sockaddr *>(&client), &size);
  __real_sendto(fd, "-12345", 6, 0, reinterpret_cast<const sockaddr *>(&client), size);
}

void sendRequest(int fd, uint32_t serverPort) {
  uint8_t request[16];
  const int32_t size = ZuBuffer_Pack(request, "IIII", 16, 0, 1, serverPort);
  const sockaddr_in address = loopbackPort(9099);
  __real_sendto(fd, request, static_cast<size_t>(size), 0, reinterpret_cast<const sockaddr *>(&address),
                sizeof address);
  usleep(20000);
}

// ---- what the functions work on

char l_text[2000];  // of 1999 letters
char l_out[20000];
uint8_t l_bytes[4000];

int l_calls;  // of the callback below

int32_t leaveAtSecond() {
  if (++l_calls == 2) leave();
  return 1;
}

int32_t isSame(void *element, const void *key) { return element == key ? 0 : 1; }
int32_t isNone(const void *, void *, void *) { return 1; }
uint32_t firstBucket(const void *, uint32_t, uint32_t) { return 0; }
void doNothing() {}
int32_t collect(int32_t) { return 0; }
int32_t tick(int32_t) { return leaveAtSecond(); }
int32_t isServed(const char *, int32_t, int32_t) { return leaveAtSecond(); }

// ---- the modules

void measureFrame() {
  static void *block = ZuMem_Malloc(1, 100);
  static ZuMem *object = ZuMem_New(100, 0), *other = ZuMem_New(100, 0);
  STACK(ZuMem_Malloc(1, 100));
  STACK(ZuMem_Free(1, block));
  STACK(ZuMem_Malloc_Static(1, 0x80000));
  STACK(ZuMem_LocalMalloc(100));
  STACK(ZuMem_LocalMalloc_Static(0x80000));
  block = ZuMem_LocalMalloc(100);
  STACK(ZuMem_LocalFree(block));
  STACK(ZuMem_Show());
  STACK(ZuMem_New(100, 1));
  STACK(ZuMem_Get(object, 50));
  STACK(ZuMem_memcpy(object, 1, l_bytes, 200));
  STACK(ZuMem_memget(object, 1, l_out, 200));
  STACK(ZuMem_memset(object, 1, 0, 200));
  STACK(ZuMem_memcmp(object, 1, l_bytes, 99));
  STACK(ZuMem_realloc(object, 4000));
  STACK(ZuMem_Release(other));

  static ZuPrint *print = ZuPrint_New(l_out, 100);
  STACK(ZuPrint_New(l_out, 100));
  STACK(ZuPrint_SetPrint(print, 1));
  STACK(ZuPrint_PrintCh(print, 'x', 250));
  STACK(ZuPrint_Print(print, "text", 250));
  STACK(ZuPrint_Flush(print));
  STACK(ZuPrint_Release(print));
  STACK(ZuPrint_Show(l_text, 0));
  STACK(ZuPrint_ShowEx(l_text, 0));
  STACK(ZuPrint_Puts(l_text, 0));

  static char list[] = "a,b,,c", *fields[8];
  STACK(ZuString_SFormat("%s %.3f", l_text, DBL_MAX));
  STACK(ZuString_Format(l_out, "%s %.3f", l_text, DBL_MAX));
  STACK(ZuString_HFormat(l_out, l_bytes, 3000));
  STACK(ZuString_SHFormat(l_bytes, 4000));
  STACK(ZuString_Split(list, ",", fields, 8));
  STACK(ZuString_LTrim(list));
  STACK(ZuString_RTrim(list));
  STACK(ZuString_Trim(list));

  STACK(ZuTime_Sleep(1));
  STACK(ZuTime_GetUTime());
  STACK(ZuTime_GetTime(1));
  STACK(ZuTime_Now());
  STACK(ZuTime_Format(l_out, "YYYY/MM/DD HH:MI:SS yy/mm/dd hh:mi:ss", INT32_MAX));

  static ZuMD5 digest;
  STACK(ZuMD5_Init(&digest));
  STACK(ZuMD5_Encode(digest.state, l_bytes, 40));
  STACK(ZuMD5_Hash(l_bytes, 40, 7));
}

void measureContainers() {
  static ZuList *list = ZuList_New(100, ZuMem_LocalFree);
  STACK(ZuList_New(0, ZuMem_LocalFree));
  for (int i = 0; i < 10; ++i) ZuList_Append(list, ZuMem_LocalMalloc(4));
  static void *last = ZuList_Get(list, 9);
  STACK(ZuList_Length(list));
  STACK(ZuList_FindPos(list, isSame, last));
  STACK(ZuList_Find(list, isSame, last));
  STACK(ZuList_Get(list, 9));
  STACK(ZuList_Set(list, 20, last));
  STACK(ZuList_Remove(list, 20));
  STACK(ZuList_Popup(list));
  STACK(ZuList_PopTail(list));
  STACK(ZuList_Insert(list, 3, ZuMem_LocalMalloc(4)));
  STACK(ZuList_Append(list, ZuMem_LocalMalloc(4)));
  while (ZuList_Length(list) < 100) ZuList_Append(list, ZuMem_LocalMalloc(4));
  STACK(ZuList_Push(list, ZuMem_LocalMalloc(4)));
  STACK(ZuList_RemoveAll(list));
  ZuList_Append(list, ZuMem_LocalMalloc(4));
  STACK(ZuList_Release(list));

  static ZuHash *hash = ZuHash_New(16, 100, 7, nullptr);
  static void *value, *entry;
  for (int i = 0; i < 20; ++i) l_bytes[0] = static_cast<uint8_t>(i), ZuHash_Set(hash, l_bytes, l_text);
  STACK(ZuHash_New(16, 100, 7, nullptr));
  STACK(ZuHash_NewEx(16, 100, 7, nullptr, 1));
  STACK(ZuHash_Get(hash, l_bytes, &value));
  entry = static_cast<uint8_t *>(value) - 16;
  STACK(ZuHash_Find(hash, isNone, nullptr));
  STACK(ZuHash_Show(hash));
  STACK(ZuHash_ShowDepth(hash));
  STACK(ZuHash_ShowNode(entry, hash));
  STACK(ZuHash_Delete(hash, l_bytes));
  STACK(ZuHash_Set(hash, l_bytes, l_text));
  static struct {  // what the table itself passes to these two
    int32_t keySize;
    const void *key;
  } probe = {16, l_bytes};
  static struct {
    const ZuHash *table;
    ZuHashFinder finder;
    void *argument;
  } find = {hash, isNone, nullptr};
  STACK(ZuHash_Cmp(entry, &probe));
  STACK(ZuHash_PreFind(entry, &find));
  STACK(ZuHash_Release(hash));

  static ZuSet *set = ZuSet_New(100);
  STACK(ZuSet_New(100));
  STACK(ZuSet_Set(set, 99, 1));
  STACK(ZuSet_Get(set, 99));
  STACK(ZuSet_Release(set));

  static ZuBuf *buf = ZuBuf_New(1, 10, 100);
  STACK(ZuBuf_New(4, 10, 100));
  STACK(ZuBuf_Append(buf, l_text, 0));
  STACK(ZuBuf_Get(buf, 50, &value));
  STACK(ZuBuf_Set(buf, 50, l_bytes, 4000));
  STACK(ZuBuf_Length(buf));
  STACK(ZuBuf_Clear(buf));

  static ZuTable *table = ZuTable_New();
  static const double number = -DBL_MAX;
  static const float smallNumber = -1.5F;
  static const int32_t integer = INT32_MIN;
  static const int64_t longInteger = INT64_MIN;
  static const void *const values[] = {&number, &smallNumber, &integer, &longInteger, l_text};
  static const char *const formats[] = {"%.3f", "%10.2e", "%d", "%lld", "%s"};
  STACK(ZuTable_New());
  STACK(ZuTable_SetCaption(table, l_text));
  for (int i = 0; i < 5; ++i) ZuTable_SetTitle(table, i, l_text, i == 4 ? 4 : i, formats[i], "lrclr"[i]);
  STACK(ZuTable_SetTitle(table, 5, l_text, 4, "%s", 'c'));
  for (int row = 0; row < 5; ++row) {
    for (int i = 0; i < 5; ++i) ZuTable_Set(table, row, i, values[i]);
  }
  STACK(ZuTable_Set(table, 9, 5, l_text));
  STACK(ZuTable_Get(table, 9, 5));
  STACK(ZuTable_GetRowNum(table));
  STACK(ZuTable_GetColNum(table));
  STACK(ZuTable_Sum(table));
  STACK(ZuTable_ShowToBuffer(table, l_out, sizeof l_out));
  STACK(ZuTable_Show(table));
  STACK(ZuTable_ShowToBuf(table, buf));
  STACK(ZuTable_ClearLines(table));
  STACK(ZuTable_Clear(table));
  STACK(ZuTable_Release(table));
  STACK(ZuBuf_Release(buf));
}

void measureRecords() {
  static const char everyField[] = "*BbHhIiT300S1500s";
  STACK(ZuBuffer_Pack(l_bytes, "BHIT300S", 1, 2, 3, 4, l_text));
  STACK(ZuBuffer_UNPack(everyField, l_bytes));
  STACK(ZuBuffer_GetPackSize(everyField, nullptr));

  static ZuInfo *store = ZuInfo_New(4096), *other = ZuInfo_New(0);
  static int32_t cursor = -1;
  STACK(ZuInfo_New(4096));
  STACK(ZuInfo_Append(store, "key", 3, l_bytes, 2000));
  STACK(ZuInfo_AddInfo(store, 1, 2000, l_bytes, 300, l_bytes, 300, l_bytes, 300, 7));
  STACK(ZuInfo_ShowInfo(store, -1, "", "", 0, 0, 0, 0));
  STACK(ZuInfo_Get(store, "kex", 3, &cursor, nullptr, nullptr, nullptr, nullptr));
  STACK(ZuInfo_GetPack(store, &cursor, l_out, nullptr));
  STACK(ZuInfo_GetFlag(store, 7));
  STACK(ZuInfo_SetFlag(store, 7, 2));
  STACK(ZuInfo_FreeSize_(store, 4000));
  STACK(ZuInfo_Write(store, "key", l_text));
  STACK(ZuInfo_Append2Message(store, "key", 3, l_bytes, 1000, l_bytes, 2000));
  STACK(ZuInfo_PackPre(store, "key", 3, 100));
  STACK(ZuInfo_Ignore(store, 0));
  STACK(ZuInfo_GetEvicted(store));
  STACK(ZuInfo_Clear(store));
  STACK(ZuInfo_ReSize(store, 2048));
  STACK(ZuInfo_Release(other));

  static ZuLogger *logger = ZuLogger_New(255), *unused = ZuLogger_New(255);
  static ZuBuf *buf = ZuBuf_New(1, 10, 100);
  STACK(ZuLogger_New(255));
  STACK(ZuLogger_Write(logger, 1, l_text));
  STACK(ZuLogger_Append(logger, 0, 0, l_text));
  STACK(ZuLogger_ShowToBuf(logger, buf));
  STACK(ZuLogger_CopyToBuf(logger, buf));
  STACK(ZuLogger_ShowInfo(logger));
  STACK(ZuLogger_Dump(store));
  STACK(ZuLogger_ClearInfo(logger));
  STACK(ZuLogger_Ignore(logger, 0));
  STACK(ZuLogger_SetInfoSize(unused, 4096));
  STACK(ZuLogger_SetFlag(logger, 255));
  STACK(ZuLogger_SetFileName(logger, l_text));
  STACK(ZuLogger_SetUDP(logger, l_text, 1));
  STACK(ZuLogger_Header(logger, l_text));
  STACK(ZuLogger_Tail(logger));
  STACK(ZuLogger_Release(unused));

  static ZuFault *fault = ZuFault_Regist("net", doNothing);
  STACK(ZuFault_Regist(l_text, doNothing));
  STACK(ZuFault_Ignore(fault, 0));
  STACK(ZuFault_SetInfo(fault, 1));
  STACK(ZuFault_SetInitLog(fault, 0, 0, l_text));
  STACK(ZuFault_SetRunLog(fault, 0, 0, l_text));
  STACK(ZuFault_SetRegist(fault, 1, 2));
  STACK(ZuFault_SetRegist64(fault, 1, 2));
  STACK(ZuFault_SetRegistEx(fault, 1, l_bytes, 2000));
  STACK(ZuFault_SetCounter(fault, 1, 2));
  STACK(ZuFault_SetCounter64(fault, 1, 2));
  STACK(ZuFault_SetCounterEx(fault, 1, l_bytes, 2000));
  STACK(ZuFault_SetValue(fault, 1, l_bytes, 2000));
  STACK(ZuFault_ShowInitLogToBuf(fault, buf));
  STACK(ZuFault_ShowRunLogToBuf(fault, buf));
  STACK(ZuFault_ShowInitLog(fault));
  STACK(ZuFault_ShowRunLog(fault));
  STACK(ZuFault_SetLogSize(fault, 0));
  STACK(ZuFault_Start());
  STACK(ZuFault_SetFile(nullptr, 1));
  STACK(ZuFault_Start());
  STACK(ZuFault_GetResult());

  static ZuFuncLogEntry functions[] = {{"open", "I300s", 1, "(path)"}};
  static ZuFuncLog *log = ZuFuncLog_New(functions, 1, 4096);
  static int32_t id, length;
  static const uint8_t *value;
  ZuInfo_Append(log->store, "", 1, l_text, 308);
  STACK(ZuFuncLog_New(functions, 1, 4096));
  STACK(ZuFuncLog_Ignore(log, 0));
  cursor = -1;
  STACK(ZuFuncLog_Get(log, 0, &cursor, &id, &value, &length));
  STACK(ZuFuncLog_Show(log, "open", 0, 10));
  STACK(ZuFuncLog_ShowFunc(log));
  STACK(ZuFuncLog_Release(log));
}

void measureNetwork() {
  static int fd, port, self;
  STACK(ZuSock_UDP_Create(kLoopback, 8997));
  fd = makeSocket(SOCK_DGRAM, 0);
  port = self = portOf(fd);
  STACK(ZuSock_UDP_SendMessage(fd, kLoopback, port, "text", 4));
  STACK(ZuSock_UDP_RecvMessage(fd, l_out, &port, l_bytes, 100));
  std::strcpy(l_out, kLoopback), std::strcpy(reinterpret_cast<char *>(l_bytes), "text");
  STACK(ZuSock_UDP_GetMessage(fd, l_out, &self, l_bytes, 4, 100, 1000));
  STACK(ZuSock_UDP_Close(fd));

  const int config = makeSocket(SOCK_DGRAM, kConfigPort);
  const pid_t configServer = startServer([&] { answerQuery(config); });
  STACK(ZuConfig_Get("section", "key", "default"));
  STACK(ZuConfig_GetString("section", "key", "default", l_out));
  STACK(ZuConfig_GetInt("section", "key", 1));
  STACK(ZuConfig_GetUInt("section", "key", 1));
  kill(configServer, SIGKILL);
}

void measureCollection() {
  const int listener = makeSocket(SOCK_STREAM, 0), client = makeSocket(SOCK_DGRAM, 0);
  listen(listener, 5);
  static int fd, server;
  server = portOf(listener);
  const pid_t servers[] = {startServer([&] { serveRun(listener); }),
                           startServer([&] { sendRequest(client, static_cast<uint32_t>(server)); })};

  static uint32_t type;
  static int32_t port;
  STACK(CollectClient_SetTimeout(1000, 1000, 1000));
  STACK(CollectClient_SetTrace(1));
  fd = dup(0);  // the descriptor that comes next
  close(fd);
  STACK(CollectClient_Init());
  STACK(CollectClient_WaitFor(fd, 0, 0, &type, l_out, &port));
  close(fd);  // Collect_Init takes its port
  STACK(CollectClient_Start(kLoopback, server));
  STACK(CollectClient_SetType(1));
  STACK(CollectClient_AppendInt(1));
  STACK(CollectClient_AppendString("text"));
  STACK(CollectClient_AppendBuffer(l_bytes, 1010));  // whatever comes now has no room
  STACK(CollectClient_CollectInt(1, 2, 3, 4));
  CollectClient_AppendBuffer(l_bytes, 1000);
  STACK(CollectClient_CollectLong(1, 2, 3, 4));
  CollectClient_AppendBuffer(l_bytes, 1000);
  STACK(CollectClient_CollectString(1, 2, 3, l_text, 0));
  STACK(CollectClient_CollectBuffer(1, 2, 3, l_bytes, 2000));
  STACK(CollectClient_Flush(0));
  STACK(CollectClient_End());

  static ZuFault *fault = ZuFault_Regist("logs", nullptr);
  ZuFault_SetInitLog(fault, 1, 0, l_text);
  ZuFault_SetRunLog(fault, 1, 0, l_text);
  static CollectItem *item = Collect_New("item", collect, collect), *other = Collect_New("other", nullptr, nullptr);
  STACK(Collect_New("last", collect, collect));
  STACK(Collect_Release(other));
  STACK(Collect_BeginSection(item, 1));
  STACK(Collect_EndSection(item));
  CollectClient_Start(kLoopback, server);
  CollectClient_AppendBuffer(l_bytes, 1010);
  STACK(Collect_PutInt(item, 1, 2));
  CollectClient_AppendBuffer(l_bytes, 1000);
  STACK(Collect_PutLong(item, 1, 2));
  STACK(Collect_PutString(item, 1, l_text, 0));
  STACK(Collect_PutStruct(item, 1, l_bytes, sizeof l_bytes));
  STACK(Collect_PutInitLog(item, 1, fault));
  STACK(Collect_PutRunLog(item, 1, fault));
  STACK(Collect_PutLog(item, 1, g_collect_param.logger));
  CollectClient_End();
  STACK(Collect_SelfTest(kLoopback, server, 1, 2, 3));
  STACK(Collect_Start(kLoopback, server, 0, 1, 2, 3));
  STACK(Collect_SetAccess(isServed));
  STACK(Collect_SetAddress("0.0.0.0", 0));
  STACK(Collect_SetLogSize(0));
  l_calls = 0;
  STACK(Collect_Init(0x0B010000));
  STACK(Collect_Stop());
  STACK(Collect_ShowLog());
  static CollectStats stats;
  STACK(Collect_GetStats(&stats));
  // The test, the run, and the one that was asked for; their server only closes, which does not finish a run.
  if (stats.failedRuns != 3) std::abort();
  for (const pid_t child : servers) kill(child, SIGKILL);

  STACK(ZuTimer_Regist(tick, 0));
  STACK(ZuTimer_Show());
  l_calls = 0;
  STACK(ZuTimer_Loop());
  STACK(ZuTimer_Stop());
}

// ---- what is kept

void measureMemory() {
  static ZuInfo *ring = ZuInfo_New(65536);
  static ZuLogger *logger;
  static ZuTable *table = ZuTable_New();
  static ZuList *list = ZuList_New(0, ZuMem_LocalFree);
  static ZuHash *hash = ZuHash_New(16, 4, 1, firstBucket);
  for (int i = 0; i < 11; ++i) ZuTable_SetTitle(table, i, "n", 2, "%d", 'r');
  static const int32_t number = 1;
  ZuTable_Set(table, 0, 0, &number);
  ZuHash_Set(hash, l_text, l_text);
  ZuFault_Regist("first", nullptr);

  printMemory("item", 10, [](int32_t) { Collect_New("item", nullptr, nullptr); });
  printMemory("fault", 10, [](int32_t) { ZuFault_Regist("fault", nullptr); });
  printMemory("logger", 10, [](int32_t) { logger = ZuLogger_New(255); });
  printMemory("logger-with-a-line", 1, [](int32_t) { ZuLogger_Write(logger = ZuLogger_New(255), 1, "line"); });
  printMemory("record-of-8-bytes", 65536 / 12, [](int32_t i) {
    if (i == 0) ring = ZuInfo_New(65536);
    ZuInfo_Append(ring, "k", 1, "12345678", 8);
  });
  printMemory("table-cell", 10, [](int32_t i) { ZuTable_Set(table, 0, 1 + i, &number); });
  printMemory("table-row-with-a-cell", 10, [](int32_t i) { ZuTable_Set(table, 1 + i, 0, &number); });
  printMemory("list-node", 10, [](int32_t) { ZuList_Append(list, nullptr); });
  printMemory("hash-entry", 10, [](int32_t i) {
    l_bytes[0] = static_cast<uint8_t>(i);
    ZuHash_Set(hash, l_bytes, l_bytes);
  });
}

}  // namespace

int main() {
  std::memset(l_text, 'x', sizeof l_text - 1);
  STACK(Kep_SetLock(doNothing, doNothing));  // first: with a lock everything takes a little more
  STACK(Kep_Version());
  measureMemory();
  measureFrame();
  measureContainers();
  measureRecords();
  measureNetwork();
  measureCollection();
}
