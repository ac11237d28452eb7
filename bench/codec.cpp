// codec.cpp: the layout of an integer record, by format and by hand.
#include <kep/ZuBuffer.h>

#include "bench.hpp"

namespace {

void put32(uint8_t *out, uint32_t value) {
  out[0] = static_cast<uint8_t>(value >> 24);
  out[1] = static_cast<uint8_t>(value >> 16);
  out[2] = static_cast<uint8_t>(value >> 8);
  out[3] = static_cast<uint8_t>(value);
}

uint32_t get32(const uint8_t *in) {
  return static_cast<uint32_t>(in[0]) << 24 | static_cast<uint32_t>(in[1]) << 16 | static_cast<uint32_t>(in[2]) << 8 |
         in[3];
}

uint32_t values[4] = {1, 2, 3, 4};
uint8_t record[17] = {0x81};

// Functions, as the codec's are: inlined they would be folded into the loop that calls them.
__attribute__((noinline)) void packRecord(uint8_t *out, uint8_t type, uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  out[0] = type;
  put32(out + 1, a);
  put32(out + 5, b);
  put32(out + 9, c);
  put32(out + 13, d);
}

__attribute__((noinline)) void unpackRecord(const uint8_t *in, uint8_t *type, uint32_t *a, uint32_t *b, uint32_t *c,
                                            uint32_t *d) {
  *type = in[0];
  *a = get32(in + 1);
  *b = get32(in + 5);
  *c = get32(in + 9);
  *d = get32(in + 13);
}

void pack(benchmark::State &state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(ZuBuffer_Pack(record, "BIIII", 0x81, values[0], values[1], values[2], values[3]));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(pack);

void packByHand(benchmark::State &state) {
  for (auto _ : state) {
    packRecord(record, 0x81, values[0], values[1], values[2], values[3]);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(packByHand);

void unpack(benchmark::State &state) {
  uint8_t type = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ZuBuffer_UNPack("BIIII", record, &type, &values[0], &values[1], &values[2], &values[3]));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(unpack);

void unpackByHand(benchmark::State &state) {
  uint8_t type = 0;
  for (auto _ : state) {
    unpackRecord(record, &type, &values[0], &values[1], &values[2], &values[3]);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(unpackByHand);

const Ratio ratioPack("pack of BIIII / stores by hand", "pack", "packByHand");
const Ratio ratioUnpack("unpack of BIIII / loads by hand", "unpack", "unpackByHand");

}  // namespace
