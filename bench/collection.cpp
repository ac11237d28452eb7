// collection.cpp: a collection run over loopback, beside the bare exchange of the same messages.
#include <arpa/inet.h>
#include <kep/Collect.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#ifdef KEP_BENCH_HAVE_ZMQ
#include <zmq.h>
#endif

#include <cstdlib>
#include <thread>
#include <vector>

#include "bench.hpp"

namespace {

constexpr int32_t kIntCount = 10000;
constexpr size_t kMessageCount = 170;  // that a run takes for them

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

void collect() {
  if (!Collect_Start("127.0.0.1", server().port(), 0, 1, 0, 0)) std::abort();
}

void kepCollect(Run &run) {
  item = Collect_New("integers", putInts, nullptr);
  run.time(collect);
  Collect_Release(item);
}

// The lengths of a run's messages, as the server saw them.
const std::vector<size_t> &messageLengths() {
  static std::vector<size_t> lengths;
  if (lengths.empty()) {
    item = Collect_New("integers", putInts, nullptr);
    collect();
    Collect_Release(item);
    lengths = server().lengths;
    if (lengths.size() != kMessageCount) std::abort();
  }
  return lengths;
}

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

void plainExchange(Run &run) {
  const std::vector<size_t> &lengths = messageLengths();
  run.time([&] { exchange(lengths); });
}

const Row collection("collection run of 10,000 integers, a message", kMessageCount, kepCollect, plainExchange,
                     {1.1, 0.3}, Clock::wall);

#ifdef KEP_BENCH_HAVE_ZMQ

// A connection that stays, which is kinder to the peer: the others connect in every run.
class Requester {
 public:
  Requester()
      : context_(zmq_ctx_new()), replies_(zmq_socket(context_, ZMQ_REP)), socket_(zmq_socket(context_, ZMQ_REQ)) {
    char endpoint[64];
    size_t size = sizeof endpoint;
    if (zmq_bind(replies_, "tcp://127.0.0.1:*") != 0) std::abort();
    zmq_getsockopt(replies_, ZMQ_LAST_ENDPOINT, endpoint, &size);
    if (zmq_connect(socket_, endpoint) != 0) std::abort();
    std::thread([this] { serve(); }).detach();
  }

  void request(const void *message, size_t length) {
    char ack[16];
    if (zmq_send(socket_, message, length, 0) < 0 || zmq_recv(socket_, ack, sizeof ack, 0) < 0) std::abort();
  }

 private:
  void serve() {
    uint8_t message[1036];
    while (zmq_recv(replies_, message, sizeof message, 0) >= 0 && zmq_send(replies_, "ok", 2, 0) >= 0) {
    }
  }

  void *context_;
  void *replies_;
  void *socket_;
};

void zmqExchange(Run &run) {
  static Requester &requester = *new Requester;
  const std::vector<size_t> &lengths = messageLengths();
  const uint8_t message[1036] = {};
  run.time([&] {
    for (const size_t length : lengths) requester.request(message, length);
  });
}

const Peer collectionZmq(collection, "zmq REQ/REP", zmqExchange);

#endif

}  // namespace
