// stream.cpp: the stream of one run, all numbers big-endian.
//
//   message    total length (4) | type (4) | sequence (4) | payload, at most 1024 bytes
//   identity   4 bytes                                                          type 0, always the first message
//   catalogue  { item index (4) | name length (2) | name } ..                   type 1, second, not in a self-test
//   data       { record } ..                                                    type 2
//   record     0x81 | item (4) | section (4) | key (4) | value (4)              integer
//              0x82 | item (4) | section (4) | key (4) | value (8)              long
//              0x83 | item (4) | section (4) | key (4) | length (2) | bytes     string
//              0x84 | item (4) | section (4) | key (4) | length (2) | bytes     buffer
//
// A string or buffer record without the 0x80 bit is a piece: the next record, perhaps in a later message, continues
// the same value. A run ends with a data message without records. In a collection an item that reports nothing sends
// such a message, too; every item that the board asks sends at least one message.

#include "server/stream.hpp"

#include <algorithm>
#include <utility>

#include "server/text.hpp"

namespace kepserver {

namespace {

constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxMessageSize = kHeaderSize + 1024;
constexpr uint64_t kMaxRunSize = 64 << 20;
constexpr uint64_t kMaxRecordCount = 1 << 20;
constexpr size_t kMaxNameSize = 19;
constexpr size_t kTypeOffset = 4;
constexpr size_t kSequenceOffset = 8;
constexpr size_t kIdentitySize = 4;

constexpr int32_t kIdentityMessage = 0;
constexpr int32_t kCatalogueMessage = 1;
constexpr int32_t kDataMessage = 2;

constexpr uint8_t kLastPiece = 0x80;
constexpr int32_t kTestedItem = 0xFFFF;  // the item index under which a self-test announces the item it turns to

[[noreturn]] void fail(uint64_t offset, std::string reason) { throw Damage{offset, std::move(reason), false}; }

bool isTestedName(const Value &value) {
  return value.kind == ValueKind::kString && value.item == kTestedItem && value.section == 0 && value.key == 0;
}

std::string describe(const Value &value) {
  return "item " + std::to_string(value.item) + ", section " + std::to_string(value.section) + ", key " +
         std::to_string(value.key);
}

ValueKind kindOf(uint8_t recordType, uint64_t offset) {
  switch (recordType) {
    case 0x81: return ValueKind::kInt;
    case 0x82: return ValueKind::kLong;
    case 0x03:
    case 0x83: return ValueKind::kString;
    case 0x04:
    case 0x84: return ValueKind::kBuffer;
    default: fail(offset, "unknown record type " + std::to_string(recordType));
  }
}

}  // namespace

// Reads the fields of one message in turn and knows where in the stream they lie.
class FieldReader {
 public:
  FieldReader(const std::string &message, uint64_t messageOffset, size_t position)
      : message_(message), messageOffset_(messageOffset), position_(position) {}

  bool atEnd() const { return position_ == message_.size(); }
  uint64_t offset() const { return messageOffset_ + position_; }

  template <class Unsigned>
  Unsigned number() {
    if (message_.size() - position_ < sizeof(Unsigned)) fail(offset(), "a field runs past its message");
    position_ += sizeof(Unsigned);
    return loadBig<Unsigned>(message_.data() + position_ - sizeof(Unsigned));
  }

  int32_t signedWord() { return static_cast<int32_t>(number<uint32_t>()); }

  // Bytes behind their own 2-byte count.
  std::string_view countedBytes() {
    const uint64_t countOffset = offset();
    const size_t count = number<uint16_t>();
    if (message_.size() - position_ < count) {
      fail(countOffset, "a length of " + std::to_string(count) + " runs past its message");
    }
    position_ += count;
    return std::string_view(message_).substr(position_ - count, count);
  }

  std::string rest() { return message_.substr(std::exchange(position_, message_.size())); }

 private:
  const std::string &message_;
  uint64_t messageOffset_;
  size_t position_;
};

namespace {

Identity readIdentity(FieldReader &fields, uint32_t sequence) {
  const uint64_t offset = fields.offset();
  Identity identity{fields.rest(), static_cast<int32_t>(sequence)};
  if (identity.bytes.size() != kIdentitySize) {
    fail(offset, "an identity of " + std::to_string(identity.bytes.size()) + " bytes instead of 4");
  }
  return identity;
}

void checkName(std::string_view name, uint64_t offset) {
  if (name.size() > kMaxNameSize) fail(offset, "an item's name of more than 19 bytes");
}

void readCatalogueEntry(FieldReader &fields, std::map<int32_t, std::string> &catalogue) {
  const uint64_t offset = fields.offset();
  const int32_t index = fields.signedWord();
  if (!catalogue.empty() && index <= catalogue.rbegin()->first) {
    fail(offset, "catalogue index " + std::to_string(index) + " does not ascend");
  }
  const uint64_t nameOffset = fields.offset();
  const std::string_view name = fields.countedBytes();
  checkName(name, nameOffset);
  catalogue.emplace(index, name);
}

}  // namespace

std::string_view itemName(const Run &run, const Value &value) {
  if (run.selfTest) return value.testedCount == 0 ? "" : std::string_view(run.tested[value.testedCount - 1]);
  const auto found = run.catalogue.find(value.item);
  return found == run.catalogue.end() ? "" : std::string_view(found->second);
}

size_t StreamDecoder::feed(const void *data, size_t size) {
  const char *bytes = static_cast<const char *>(data);
  size_t completed = 0;
  try {
    while (size > 0 && !damage_) {
      // The header on its own first: only it tells how much belongs to the message.
      const size_t goal = message_.size() < kHeaderSize ? kHeaderSize : messageSize_;
      const size_t taken = std::min(size, goal - message_.size());
      message_.append(bytes, taken);
      bytes += taken;
      size -= taken;
      if (message_.size() == kHeaderSize) messageSize_ = readHeader();
      if (message_.size() < kHeaderSize || message_.size() < messageSize_) continue;
      readMessage();
      ++completed;
    }
  } catch (Damage &found) {
    damage_ = std::move(found);
  }
  return completed;
}

void StreamDecoder::finish() {
  if (damage_) return;
  const uint64_t end = run_.byteCount + message_.size();
  if (!message_.empty()) {
    damage_ = Damage{end, "the stream ends inside a message", true};
  } else if (openValue_) {
    damage_ = Damage{end, "the last piece is missing of " + describe(*openValue_), true};
  } else if (!isOver()) {
    damage_ = Damage{end, "the stream ends before the run's last message", true};
  }
  run_.whole = !damage_;
}

std::string StreamDecoder::lastItem() const {
  if (run_.selfTest && !run_.tested.empty()) return printable(run_.tested.back());
  if (!openValue_ && run_.values.empty()) return "";
  const Value &last = openValue_ ? *openValue_ : run_.values.back();
  const std::string_view name = itemName(run_, last);
  return name.empty() ? "item " + std::to_string(last.item) : printable(name);
}

// Items without a callback send no message and stand in the catalogue all the same: all that can be asked for is that
// one item sent a message, and the end another.
bool StreamDecoder::isOver() const {
  constexpr uint64_t kFewest = 4;  // the identity, the catalogue, an item's, the end's
  return isEmpty_ && (run_.catalogue.empty() || run_.messageCount >= kFewest);
}

// Checks the header that has just become complete; returns the message's size, header included.
size_t StreamDecoder::readHeader() {
  const uint64_t start = run_.byteCount;
  FieldReader fields(message_, start, 0);
  const int32_t size = fields.signedWord();
  if (size < static_cast<int32_t>(kHeaderSize) || size > static_cast<int32_t>(kMaxMessageSize)) {
    fail(start, "a message length of " + std::to_string(size) + " is not within 12 to 1036");
  }
  if (start + static_cast<uint64_t>(size) > kMaxRunSize) fail(start, "the run goes on beyond 64 MiB");
  messageType_ = fields.signedWord();
  checkOrder(messageType_, start + kTypeOffset);
  checkSequence(fields.number<uint32_t>(), start + kSequenceOffset);
  return static_cast<size_t>(size);
}

void StreamDecoder::checkOrder(int32_t type, uint64_t offset) {
  bool expected = type == kDataMessage;
  if (run_.messageCount == 0) expected = type == kIdentityMessage;
  if (run_.messageCount == 1) {
    const bool catalogue = expectation_.kind ? *expectation_.kind == RunKind::kCollection : type == kCatalogueMessage;
    expected = type == (catalogue ? kCatalogueMessage : kDataMessage);
    run_.selfTest = !catalogue;
  }
  if (!expected) {
    fail(offset, "a message of type " + std::to_string(type) + " as number " + std::to_string(run_.messageCount + 1) +
                     " of the run");
  }
}

// The first message carries the request's number and all others the board's own count, which goes on from one run to
// the next: where it stands is known only from the second message on, or from the first when the request gave none.
void StreamDecoder::checkSequence(uint32_t sequence, uint64_t offset) {
  const bool automatic = expectation_.sequence && *expectation_.sequence == 0;
  std::optional<uint32_t> expected;
  if (run_.messageCount == 0) {
    if (expectation_.sequence && !automatic) expected = static_cast<uint32_t>(*expectation_.sequence);
  } else if (run_.messageCount > 1 || automatic) {
    expected = lastSequence_ + 1;
  }
  if (expected && sequence != *expected) {
    fail(offset, "sequence " + std::to_string(static_cast<int32_t>(sequence)) + " instead of " +
                     std::to_string(static_cast<int32_t>(*expected)));
  }
  lastSequence_ = sequence;
}

void StreamDecoder::readMessage() {
  FieldReader fields(message_, run_.byteCount, kHeaderSize);
  isEmpty_ = messageType_ == kDataMessage && fields.atEnd();
  if (messageType_ == kIdentityMessage) run_.identity = readIdentity(fields, lastSequence_);
  while (!fields.atEnd()) {
    if (messageType_ == kCatalogueMessage) {
      readCatalogueEntry(fields, run_.catalogue);
    } else {
      readRecord(fields);
    }
  }
  ++run_.messageCount;
  run_.byteCount += message_.size();
  message_.clear();
}

void StreamDecoder::readRecord(FieldReader &fields) {
  const uint64_t offset = fields.offset();
  if (run_.recordCount == kMaxRecordCount) fail(offset, "the run goes on beyond 1048576 records");
  const uint8_t type = fields.number<uint8_t>();
  Value value;
  value.kind = kindOf(type, offset);
  value.item = fields.signedWord();
  value.section = fields.signedWord();
  value.key = fields.signedWord();
  if (value.kind == ValueKind::kInt) {
    value.number = fields.signedWord();
  } else if (value.kind == ValueKind::kLong) {
    value.number = static_cast<int64_t>(fields.number<uint64_t>());
  } else {
    value.bytes = fields.countedBytes();
  }
  joinPiece(std::move(value), (type & kLastPiece) != 0, offset);
  ++run_.recordCount;
}

void StreamDecoder::joinPiece(Value &&piece, bool last, uint64_t offset) {
  if (openValue_) {
    const bool continues = piece.kind == openValue_->kind && piece.item == openValue_->item &&
                           piece.section == openValue_->section && piece.key == openValue_->key;
    if (!continues) {
      fail(offset, "a record of " + describe(piece) + " before the last piece of " + describe(*openValue_));
    }
    if (expectation_.keepsValues) openValue_->bytes += piece.bytes;
    piece = *std::exchange(openValue_, std::nullopt);
  }
  if (run_.selfTest && isTestedName(piece)) checkName(piece.bytes, offset);
  if (last) {
    keep(std::move(piece));
  } else {
    openValue_ = std::move(piece);
  }
}

void StreamDecoder::keep(Value &&value) {
  if (!expectation_.keepsValues) return;
  if (run_.selfTest && isTestedName(value)) {
    run_.tested.push_back(std::move(value.bytes));
    return;
  }
  value.testedCount = run_.tested.size();
  run_.values.push_back(std::move(value));
}

}  // namespace kepserver
