// codec.cpp: the layouts of an integer record and of a stored text, by format and by hand.
#include <arpa/inet.h>
#include <kep/ZuBuffer.h>

#include <cstring>

#ifdef KEP_BENCH_HAVE_MSGPACK
#include <msgpack.h>
#endif

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

uint32_t values[4] = {100000, 200000, 300000, 400000};  // a peer would write small ones in fewer bytes
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

const char text[] = "a line of a log, as long as such lines often are: 64 characters.";
uint8_t stored[4 + 1 + sizeof text];

void kepPackText(Run &run) {
  run.time([] { keep(ZuBuffer_Pack(stored, "B1sH64s", 1, "k", 64, text)); });
}

// Of any key and value, as the format is.
CALLED void packText(uint8_t *out, const char *key, uint8_t keyLength, const char *value, uint16_t valueLength) {
  *out++ = keyLength;
  std::memcpy(out, key, keyLength);
  out += keyLength;
  *out++ = static_cast<uint8_t>(valueLength >> 8);
  *out++ = static_cast<uint8_t>(valueLength);
  std::memcpy(out, value, valueLength);
}

void plainPackText(Run &run) {
  run.time([] { packText(stored, "k", 1, text, 64); });
}

const Row packTextRow("pack of B1sH64s", 1, kepPackText, plainPackText, {2.4, 0.9});

#ifdef KEP_BENCH_HAVE_MSGPACK

// A buffer that is filled again and again; it has grown to what it needs.
class Message {
 public:
  Message() {
    msgpack_sbuffer_init(&buffer);
    msgpack_packer_init(&packer, &buffer, msgpack_sbuffer_write);
  }
  ~Message() { msgpack_sbuffer_destroy(&buffer); }
  Message(const Message &) = delete;

  void packRecord() {
    msgpack_sbuffer_clear(&buffer);
    msgpack_pack_uint8(&packer, 0x81);
    for (const uint32_t value : values) msgpack_pack_uint32(&packer, value);
  }

  void packText() {
    msgpack_sbuffer_clear(&buffer);
    msgpack_pack_str(&packer, 1);
    msgpack_pack_str_body(&packer, "k", 1);
    msgpack_pack_str(&packer, 64);
    msgpack_pack_str_body(&packer, text, 64);
  }

  msgpack_sbuffer buffer;
  msgpack_packer packer;
};

void msgpackPack(Run &run) {
  Message message;
  run.time([&] {
    message.packRecord();
    keep(message.buffer.size);
  });
}

void msgpackUnpack(Run &run) {
  Message message;
  message.packRecord();
  msgpack_unpacked field;
  msgpack_unpacked_init(&field);
  run.time([&] {
    size_t offset = 0;
    while (msgpack_unpack_next(&field, message.buffer.data, message.buffer.size, &offset) == MSGPACK_UNPACK_SUCCESS) {
      keep(field.data.via.u64);
    }
  });
  msgpack_unpacked_destroy(&field);
}

void msgpackPackText(Run &run) {
  Message message;
  run.time([&] {
    message.packText();
    keep(message.buffer.size);
  });
}

const Peer packMsgpack(pack, "msgpack-c", msgpackPack);
const Peer unpackMsgpack(unpack, "msgpack-c", msgpackUnpack);
const Peer packTextMsgpack(packTextRow, "msgpack-c", msgpackPackText);

#endif

}  // namespace
