// codec.cpp: the layout of an integer record, by format and by hand.
#include <arpa/inet.h>
#include <kep/ZuBuffer.h>

#include <cstring>

#include "bench.hpp"

namespace {

// By htonl and a copy, which become two instructions; out of stores of single bytes g++ 12 makes vector code, slower.
void put32(uint8_t *out, uint32_t value) {
  value = htonl(value);
  std::memcpy(out, &value, sizeof value);
}

uint32_t get32(const uint8_t *in) {
  uint32_t value;
  std::memcpy(&value, in, sizeof value);
  return ntohl(value);
}

uint32_t values[4] = {1, 2, 3, 4};
uint8_t record[17] = {0x81};

void kepPack(Run &run) {
  run.time([] { keep(ZuBuffer_Pack(record, "BIIII", 0x81, values[0], values[1], values[2], values[3])); });
}

CALLED void packRecord(uint8_t *out, uint8_t type, uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  out[0] = type;
  put32(out + 1, a);
  put32(out + 5, b);
  put32(out + 9, c);
  put32(out + 13, d);
}

void plainPack(Run &run) {
  run.time([] { packRecord(record, 0x81, values[0], values[1], values[2], values[3]); });
}

const Row pack("pack of BIIII", 1, kepPack, plainPack, {5, 0.32});

void kepUnpack(Run &run) {
  uint8_t type = 0;
  run.time([&] { keep(ZuBuffer_UNPack("BIIII", record, &type, &values[0], &values[1], &values[2], &values[3])); });
}

CALLED void unpackRecord(const uint8_t *in, uint8_t *type, uint32_t *a, uint32_t *b, uint32_t *c, uint32_t *d) {
  *type = in[0];
  *a = get32(in + 1);
  *b = get32(in + 5);
  *c = get32(in + 9);
  *d = get32(in + 13);
}

void plainUnpack(Run &run) {
  uint8_t type = 0;
  run.time([&] { unpackRecord(record, &type, &values[0], &values[1], &values[2], &values[3]); });
}

const Row unpack("unpack of BIIII", 1, kepUnpack, plainUnpack, {6, 0.2});

}  // namespace
