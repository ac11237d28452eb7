// collection.cpp: a collection run over loopback, beside the bare exchange of the same messages.
#include <arpa/inet.h>
#include <kep/Collect.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "bench.hpp"

namespace {

constexpr int32_t kIntCount = 10000;

// Takes connections on loopback one after another, and acknowledges every message.
class Server {
 public:
  Server() : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    if (bind(listener_, reinterpret_cast<sockaddr *>(&address_), size) != 0 || listen(listener_, 1) != 0) std::abort();
    getsockname(listener_, reinterpret_cast<sockaddr *>(&address_), &size);
    std::thread([this] { serve(); }).detach();
  }

  const sockaddr_in &address() const { return address_; }
  int32_t port() const { return ntohs(address_.sin_port); }

  // The lengths of the messages of the last connection.
  std::vector<size_t> lengths;

 private:
  static bool readAll(int fd, void *out, size_t size) { return recv(fd, out, size, MSG_WAITALL) == ssize_t(size); }

  void serve() {
    for (;;) {
      const int fd = accept(listener_, nullptr, nullptr);
      std::vector<size_t> seen;
      uint8_t message[1036];
      uint32_t length;
      while (readAll(fd, &length, sizeof length) && readAll(fd, message, ntohl(length) - sizeof length)) {
        seen.push_back(ntohl(length));
        // Kept before the acknowledgement, which lets the other side go on and read it.
        lengths = seen;
        if (send(fd, "ok", 2, MSG_NOSIGNAL) != 2) break;
      }
      close(fd);
    }
  }

  int listener_;
  sockaddr_in address_{};
};

Server &server() {
  static Server &one = *new Server;
  return one;
}

CollectItem *item;

int32_t putInts(int32_t) {
  for (int32_t i = 0; i < kIntCount; ++i) Collect_PutInt(item, i, i);
  return 0;
}

void run() {
  if (!Collect_Start("127.0.0.1", server().port(), 0, 1, 0, 0)) std::abort();
}

void collect(benchmark::State &state) {
  item = Collect_New("integers", putInts, nullptr);
  for (auto _ : state) run();
  Collect_Release(item);
}
BENCHMARK(collect)->UseRealTime();

void exchange(const std::vector<size_t> &lengths) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = server().address();
  if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) std::abort();
  uint8_t message[1036] = {};
  char ack[16];
  for (const size_t length : lengths) {
    const uint32_t field = htonl(static_cast<uint32_t>(length));
    __builtin_memcpy(message, &field, sizeof field);
    if (send(fd, message, length, 0) != ssize_t(length) || recv(fd, ack, sizeof ack, 0) <= 0) std::abort();
  }
  close(fd);
}

void bareExchange(benchmark::State &state) {
  item = Collect_New("integers", putInts, nullptr);
  run();
  Collect_Release(item);
  const std::vector<size_t> lengths = server().lengths;
  for (auto _ : state) exchange(lengths);
}
BENCHMARK(bareExchange)->UseRealTime();

const Ratio ratioCollect("collection run of 10,000 integers / bare exchange", "collect", "bareExchange");

}  // namespace
