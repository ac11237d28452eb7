// fault_file.cpp: the file of logs and values, all numbers big-endian.
//
//   log record   length (2) | "log" or "run" (3) | ' ' | name | ' ' | time or text      until one of length 0
//   value        length (2) | name length + 1 (1) | item type (1) | name | content      until the file's end
//   content      id (4) | number (4 or 8)             items of 32 and 64 bits
//                id (4) | size (4) | bytes            the others
//
// A length counts what follows. A record that would be too long for it is cut at its end; the size in front of cut
// bytes is that of before. Names have at most 22 bytes; they and texts hold no zero byte.

#include "server/fault_file.hpp"

#include <algorithm>
#include <set>
#include <string>

#include "server/log_lines.hpp"

namespace kepserver {

namespace {

constexpr size_t kMaxFileSize = 128 << 20;
constexpr size_t kLengthSize = 2;
constexpr size_t kLongestRecord = UINT16_MAX;
constexpr size_t kMaxNameSize = 22;
constexpr size_t kTagSize = 4;        // with its blank
constexpr size_t kValueHeadSize = 2;  // in front of the name
constexpr size_t kBytesHeadSize = 8;  // in front of an item's bytes
constexpr size_t kTimeSize = 14;
constexpr size_t kMostBytes = 65527;  // that a board records

[[noreturn]] void fail(uint64_t offset, std::string reason) { throw Damage{offset, std::move(reason), false}; }

// Whether `text` begins with the name and the blank behind it.
bool isOf(std::string_view text, std::string_view name) {
  return text.size() > name.size() && text[name.size()] == ' ' && text.substr(0, name.size()) == name;
}

// The name in front of a log record's time; nothing when there is no time.
std::optional<std::string_view> nameBeforeTime(std::string_view text) {
  if (text.size() <= kTimeSize) return std::nullopt;
  const size_t size = text.size() - kTimeSize - 1;
  const bool isTime = size <= kMaxNameSize && text[size] == ' ' && isLogTime(text.substr(size + 1));
  return isTime ? std::optional(text.substr(0, size)) : std::nullopt;
}

// All that a log record's name may be, the shortest first.
std::vector<std::string_view> possibleNames(std::string_view text) {
  std::vector<std::string_view> names;
  for (size_t i = 0; i < text.size() && i <= kMaxNameSize; ++i) {
    if (text[i] == ' ') names.push_back(text.substr(0, i));
  }
  return names;
}

// Tells where the names end in log records, which it takes in the file's order, without their tags.
class NameFinder {
 public:
  explicit NameFinder(std::set<std::string_view> known) : known_(std::move(known)) {}

  // Notes what can only be a name: of a time with a line behind it, or in front of the only blank.
  void look(std::string_view text, std::string_view next) {
    const std::vector<std::string_view> names = possibleNames(text);
    const std::optional<std::string_view> timed = nameBeforeTime(text);
    if (names.size() == 1) known_.insert(names[0]);
    if (timed && isOf(next, *timed)) known_.insert(*timed);
  }

  struct Found {
    std::string_view name;
    bool isGuessed;
  };

  // `next`: the record behind it, nothing if that is of another log.
  Found find(std::string_view text, std::string_view next) {
    const std::optional<std::string_view> timed = nameBeforeTime(text);
    const std::optional<std::string_view> awaited = std::exchange(awaited_, std::nullopt);
    if (awaited && isOf(text, *awaited)) return {*awaited, false};
    std::vector<std::string_view> names = possibleNames(text);
    const auto isUnknown = [this](std::string_view name) { return known_.count(name) == 0; };
    if (timed && (!isUnknown(*timed) || std::all_of(names.begin(), names.end(), isUnknown))) {
      awaited_ = timed;
      return {*timed, false};
    }
    const std::string_view shortest = names[0];
    names.erase(std::remove_if(names.begin(), names.end(), isUnknown), names.end());
    if (names.size() == 1 && !timed) return {names[0], false};
    // A line that has lost its time stands in front of its log's first time.
    const std::optional<std::string_view> follower = nameBeforeTime(next);
    if (follower && isOf(text, *follower)) return {*follower, true};
    return {names.empty() ? shortest : names[0], true};
  }

 private:
  std::set<std::string_view> known_;
  std::optional<std::string_view> awaited_;  // whose time was last, if its line may follow
};

std::vector<FaultLog> logsOf(const std::vector<std::string_view> &records, std::set<std::string_view> known) {
  const auto behind = [&records](size_t i) {
    const bool continues =
        i + 1 < records.size() && records[i].substr(0, kTagSize) == records[i + 1].substr(0, kTagSize);
    return continues ? records[i + 1].substr(kTagSize) : "";
  };
  NameFinder finder(std::move(known));
  for (size_t i = 0; i < records.size(); ++i) finder.look(records[i].substr(kTagSize), behind(i));
  std::vector<FaultLog> logs;
  for (size_t i = 0; i < records.size(); ++i) {
    const FaultLogKind kind = records[i][0] == 'l' ? FaultLogKind::kInit : FaultLogKind::kRun;
    const auto [name, isGuessed] = finder.find(records[i].substr(kTagSize), behind(i));
    if (logs.empty() || logs.back().fault != name || logs.back().kind != kind || logs.back().isGuessed != isGuessed) {
      logs.push_back({name, kind, isGuessed, false, {}});
    }
    logs.back().records.push_back(records[i].substr(kTagSize + name.size() + 1));
  }
  return logs;
}

void checkLogRecord(std::string_view record, uint64_t offset) {
  const std::string_view tag = record.substr(0, kTagSize);
  if (tag != "log " && tag != "run ") fail(offset, "a log record that begins with neither \"log \" nor \"run \"");
  if (record.find(' ', kTagSize) > kTagSize + kMaxNameSize) fail(offset + kTagSize, "a log record without a name");
  const size_t zero = record.find('\0');
  if (zero != std::string_view::npos) fail(offset + zero, "a zero byte in a log record");
}

FaultValue valueOf(std::string_view record) {
  FaultValue value;
  const auto nameSize = static_cast<size_t>(static_cast<uint8_t>(record[0]) - 1);
  const char *const content = record.data() + kValueHeadSize + nameSize;
  value.fault = record.substr(kValueHeadSize, nameSize);
  value.item = static_cast<FaultItem>(record[1]);
  value.id = loadBig<uint32_t>(content);
  if (holdsBytes(value.item)) {
    value.recordedSize = loadBig<uint32_t>(content + 4);
    value.bytes = record.substr(kValueHeadSize + nameSize + kBytesHeadSize);
  } else {
    value.number = isLong(value.item) ? loadBig<uint64_t>(content + 4) : loadBig<uint32_t>(content + 4);
  }
  return value;
}

void checkContent(std::string_view record, FaultItem item, size_t nameSize, uint64_t offset) {
  const size_t headSize = kValueHeadSize + nameSize;
  const size_t size = record.size() - headSize;
  const size_t expected = isLong(item) ? 12 : 8;
  if (holdsBytes(item) ? size < expected : size != expected) {
    fail(offset - kLengthSize, "a value of " + std::to_string(size) + " bytes instead of " + std::to_string(expected));
  }
  if (!holdsBytes(item)) return;
  const size_t told = loadBig<uint32_t>(record.data() + headSize + 4), held = size - kBytesHeadSize;
  const bool isCut = record.size() == kLongestRecord && told > held && told <= kMostBytes;
  if (told != held && !isCut) {
    fail(offset + headSize + 4,
         "a size of " + std::to_string(told) + " in front of " + std::to_string(held) + " bytes");
  }
}

void checkValue(std::string_view record, uint64_t offset) {
  if (record.size() < kValueHeadSize) fail(offset - kLengthSize, "a value without a head");
  const auto nameSize = static_cast<size_t>(static_cast<uint8_t>(record[0])) - 1;
  if (nameSize > kMaxNameSize || nameSize > record.size() - kValueHeadSize) {
    fail(offset, "a name length of " + std::to_string(static_cast<uint8_t>(record[0])));
  }
  const auto type = static_cast<uint8_t>(record[1]);
  if (type > static_cast<uint8_t>(FaultItem::kValue)) fail(offset + 1, "unknown item type " + std::to_string(type));
  const size_t zero = record.substr(kValueHeadSize, nameSize).find('\0');
  if (zero != std::string_view::npos) fail(offset + kValueHeadSize + zero, "a zero byte in a name");
  checkContent(record, static_cast<FaultItem>(type), nameSize, offset);
}

}  // namespace

void FaultFileReader::feed(const void *data, size_t size) {
  if (damage_) return;
  std::vector<char> &bytes = file_.bytes;
  const char *const begin = static_cast<const char *>(data);
  bytes.insert(bytes.end(), begin, begin + std::min(size, kMaxFileSize + 1 - bytes.size()));
  try {
    readRecords();
    if (bytes.size() > kMaxFileSize) fail(file_.byteCount, "the file goes on beyond 128 MiB");
  } catch (Damage &found) {
    damage_ = std::move(found);
  }
}

// Takes all records that are there as a whole.
void FaultFileReader::readRecords() {
  const std::vector<char> &bytes = file_.bytes;
  for (uint64_t &done = file_.byteCount; bytes.size() - done >= kLengthSize;) {
    const size_t size = loadBig<uint16_t>(bytes.data() + done);
    if (bytes.size() - done - kLengthSize < size) return;
    const Record record = {static_cast<uint32_t>(done + kLengthSize), static_cast<uint32_t>(size)};
    const std::string_view content = contentOf(record);
    if (logsAreOver_) {
      checkValue(content, record.offset);
      values_.push_back(record);
    } else if (size > 0) {
      checkLogRecord(content, record.offset);
      logRecords_.push_back(record);
    } else {
      logsAreOver_ = true;
    }
    done += kLengthSize + size;
  }
}

FaultFile FaultFileReader::finish() {
  if (!damage_ && file_.bytes.size() > file_.byteCount) {
    damage_ = Damage{file_.bytes.size(), "the file ends inside a record", true};
  } else if (!damage_ && !logsAreOver_) {
    damage_ = Damage{file_.bytes.size(), "the file ends before the end of its logs", true};
  }
  file_.whole = !damage_;
  std::set<std::string_view> names;
  for (const Record &record : values_) {
    file_.values.push_back(valueOf(contentOf(record)));
    names.insert(file_.values.back().fault);
  }
  std::vector<std::string_view> records;
  for (const Record &record : logRecords_) records.push_back(contentOf(record));
  file_.logs = logsOf(records, std::move(names));
  if (!logsAreOver_ && !file_.logs.empty()) file_.logs.back().isCutShort = true;
  return std::move(file_);
}

std::string_view FaultFileReader::contentOf(const Record &record) const {
  return {file_.bytes.data() + record.offset, record.size};
}

}  // namespace kepserver
