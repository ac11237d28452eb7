// ZuBuf.cpp: a growable, zero-filled array of fixed-size elements.
#include "ZuBuf.hpp"

#include <cstring>

#include "ZuMem.hpp"

struct ZuBuf {
  uint32_t capacity;  // elements at first, the block's bytes once it has grown: equal only for 1-byte elements
  uint32_t growStep;  // bytes; a block's size is rounded up to a multiple of it
  uint32_t elemSize;
  uint32_t length;  // elements in use
  uint8_t *data;
};
static_assert(sizeof(void *) != 4 || sizeof(ZuBuf) == 20, "the board's record");

namespace {

uint64_t bytesFor(const ZuBuf *buf, uint64_t elements) { return elements * buf->elemSize; }

// A block whose first `used` bytes are left for the caller to write; the others are 0.
uint8_t *makeBlock(uint64_t size, size_t used) {
  if (size > UINT32_MAX) return nullptr;
  auto *block = static_cast<uint8_t *>(takeLocal(static_cast<uint32_t>(size)));
  if (block) std::memset(block + used, 0, static_cast<size_t>(size) - used);
  return block;
}

bool grow(ZuBuf *buf, uint64_t need) {
  uint64_t size = bytesFor(buf, need);
  if (size > UINT32_MAX) return false;
  const uint32_t rest = buf->growStep > 0 ? static_cast<uint32_t>(size) % buf->growStep : 0;
  if (rest > 0) size += buf->growStep - rest;
  const auto used = static_cast<size_t>(bytesFor(buf, buf->length));
  uint8_t *block = makeBlock(size, used);
  if (!block) return false;
  std::memcpy(block, buf->data, used);
  giveLocal(buf->data);
  buf->data = block;
  buf->capacity = static_cast<uint32_t>(size);
  return true;
}

// Makes sure that `need` elements may be written. Beside the capacity rule the block itself is asked, which is smaller
// than the rule believes when elements are wider than a byte.
inline bool reserve(ZuBuf *buf, uint64_t need) {  // in place: mostly there is room
  if (need <= buf->capacity && (buf->elemSize == 1 || bytesFor(buf, need) <= trackedSize(buf->data))) return true;
  return need <= UINT32_MAX && grow(buf, need);
}

void put(ZuBuf *buf, uint32_t index, const void *src, uint32_t n) {
  uint8_t *out = buf->data + bytesFor(buf, index);
  const auto size = static_cast<size_t>(bytesFor(buf, n));
  if (size == 1) {
    *out = *static_cast<const uint8_t *>(src);  // a call for one byte would cost more than all the rest
  } else {
    std::memcpy(out, src, size);
  }
}

}  // namespace

bool holdsBytes(const ZuBuf *buf) { return buf->elemSize == 1; }

// Room is made for one character at a time and then filled, so that the block grows as under single appends.
void appendRun(ZuBuf *buf, char ch, uint32_t count) {
  while (count > 0) {
    uint32_t n = 1;
    if (reserve(buf, uint64_t{buf->length} + 1)) {
      const uint32_t room = buf->capacity - buf->length;
      n = count < room ? count : room;
      std::memset(buf->data + buf->length, ch, n);
      buf->length += n;
    }
    count -= n;
  }
}

ZuBuf *ZuBuf_New(uint32_t elemSize, uint32_t count, uint32_t growStep) {
  auto *buf = static_cast<ZuBuf *>(takeLocal(sizeof(ZuBuf)));
  if (!buf) return nullptr;
  *buf = {count, growStep ? growStep : count, elemSize, 0, nullptr};
  buf->data = makeBlock(bytesFor(buf, count), 0);
  if (!buf->data) {
    giveLocal(buf);
    return nullptr;
  }
  return buf;
}

void ZuBuf_Release(ZuBuf *buf) {
  if (!buf) return;
  giveLocal(buf->data);
  giveLocal(buf);
}

int32_t ZuBuf_Append(ZuBuf *buf, const void *src, uint32_t n) {
  if (!buf || !src) return 0;
  const uint64_t count = n ? n : std::strlen(static_cast<const char *>(src));
  if (!reserve(buf, buf->length + count)) return 0;
  put(buf, buf->length, src, static_cast<uint32_t>(count));
  buf->length += static_cast<uint32_t>(count);
  return 1;
}

uint32_t ZuBuf_Get(ZuBuf *buf, uint32_t index, void **out) {
  if (!buf) return 0;
  const bool inside = index < buf->length;
  if (out) *out = inside ? buf->data + bytesFor(buf, index) : nullptr;
  return inside ? buf->length + 1 - index : 0;
}

int32_t ZuBuf_Set(ZuBuf *buf, uint32_t index, const void *src, uint32_t n) {
  if (!buf || !src) return 0;
  if (!reserve(buf, uint64_t{index} + n)) return 0;
  put(buf, index, src, n);
  return 1;
}

uint32_t ZuBuf_Length(const ZuBuf *buf) { return buf ? buf->length : 0; }

void ZuBuf_Clear(ZuBuf *buf) {
  if (!buf) return;
  std::memset(buf->data, 0, static_cast<size_t>(bytesFor(buf, buf->length)));
  buf->length = 0;
}
