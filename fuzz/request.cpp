// request.cpp: request datagrams of any form and size, in the name of any sender, over loopback.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>

#include "collection/request_model.hpp"
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int board = openBoard(), server = socket(AF_INET, SOCK_DGRAM, 0);
  static FILE *const output = fmemopen(sg_printed, sizeof sg_printed, "w");
  stdout = output;  // memory is faster than a file
  FuzzedDataProvider in(data, size);
  forgedSender = inet_ntoa({htonl(in.ConsumeIntegral<uint32_t>())});
  while (in.remaining_bytes() > 0) {
    const size_t length = in.ConsumeIntegral<uint8_t>();
    std::string datagram = in.ConsumeBytesAsString(length);
    datagram.resize(length == 0xFF ? kLargestDatagram : length);
    const ssize_t sent =
        sendto(server, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&sg_board), sizeof sg_board);
    require(sent == static_cast<ssize_t>(datagram.size()) ? "" : "loopback refuses a datagram");
    std::memset(sg_printed, 0, sizeof sg_printed);
    std::rewind(stdout);
    requireEqual(requests::received(board), requests::expected(datagram, forgedSender));
    requireEqual(sg_printed, "size=" + std::to_string(datagram.size()) + "\n");
  }
  return 0;
}
