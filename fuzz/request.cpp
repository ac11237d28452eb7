// request.cpp: request datagrams of any form and size, in the name of any sender, over loopback. Which are taken, and
// what is read from them, is found here a second time.
#include <fuzzer/FuzzedDataProvider.h>
#include <kep/Collect.h>
#include <kep/CollectClient.h>
#include <unistd.h>

#include <cstring>

#include "collection/forged_sender.hpp"
#include "require.hpp"

namespace {

constexpr size_t kLargestDatagram = 65507;

sockaddr_in sg_board{};
char sg_printed[64];  // for one datagram

// Bound to a port of the system's choice.
int openBoard() {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sg_board.sin_family = AF_INET;
  sg_board.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto *address = reinterpret_cast<sockaddr *>(&sg_board);
  socklen_t size = sizeof sg_board;
  require(bind(fd, address, size) == 0 && getsockname(fd, address, &size) == 0 ? "" : "no loopback");
  return fd;
}

// What a datagram does not bring is 0.
uint32_t wordAt(const std::string &datagram, size_t offset) {
  uint32_t word = 0;
  for (size_t i = offset; i < offset + 4; ++i) word = word << 8 | (i < datagram.size() ? uint8_t(datagram[i]) : 0u);
  return word;
}

std::string describe(uint32_t sequence, uint32_t type, const std::string &sender, uint32_t port) {
  return std::to_string(sequence) + " " + std::to_string(type) + " " + sender + " " + std::to_string(port) + " ";
}

std::string received(int board) {
  uint32_t type = 99;
  char sender[16] = "nobody";
  int32_t port = 99;
  CollectStats before, after;
  Collect_GetStats(&before);
  std::memset(sg_printed, 0, sizeof sg_printed);
  std::rewind(stdout);
  const int32_t sequence = CollectClient_WaitFor(board, 1, 2, &type, sender, &port);
  Collect_GetStats(&after);
  return describe(static_cast<uint32_t>(sequence), type, sender, static_cast<uint32_t>(port)) +
         std::to_string(after.datagrams - before.datagrams) + std::to_string(after.dropped - before.dropped) +
         sg_printed;
}

// Whether some host can have an address: not "this network", a group, or all.
bool isHosts(uint32_t address) {
  const uint32_t net = address >> 24;
  return net != 0 && (net < 224 || net > 239) && address != 0xFFFFFFFF;
}

std::string expected(const std::string &datagram, uint32_t address, const char *sender) {
  const bool taken =
      datagram.size() <= 16 && wordAt(datagram, 0) == datagram.size() && wordAt(datagram, 4) <= 3 && isHosts(address);
  return (taken ? describe(wordAt(datagram, 8), wordAt(datagram, 4), sender, wordAt(datagram, 12)) + "10"
                : describe(0xFFFFFFFF, 99, "nobody", 99) + "11") +
         "size=" + std::to_string(datagram.size()) + "\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int board = openBoard(), server = socket(AF_INET, SOCK_DGRAM, 0);
  static FILE *const output = fmemopen(sg_printed, sizeof sg_printed, "w");
  stdout = output;  // memory is faster than a file
  FuzzedDataProvider in(data, size);
  const auto sender = in.ConsumeIntegral<uint32_t>();
  forgedSender = inet_ntoa({htonl(sender)});
  while (in.remaining_bytes() > 0) {
    const size_t length = in.ConsumeIntegral<uint8_t>();
    std::string datagram = in.ConsumeBytesAsString(length);
    datagram.resize(length == 0xFF ? kLargestDatagram : length);
    const ssize_t sent =
        sendto(server, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&sg_board), sizeof sg_board);
    require(sent == static_cast<ssize_t>(datagram.size()) ? "" : "loopback refuses a datagram");
    requireEqual(received(board), expected(datagram, sender, forgedSender));
  }
  return 0;
}
