// samples.cpp: a sample is the place of its common labels, of its others, the length of the number, and the number.

#include "kep-fleet/samples.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

#include "server/text.hpp"

namespace kepfleet {

namespace {

constexpr size_t kMostLabelBytes = 64;
constexpr size_t kMostSeries = 5000;  // of one begin(): a board cannot fill the memory
constexpr size_t kMostBuckets = 1024;
constexpr size_t kPieceBytes = 65536;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

struct Head {
  uint32_t common = 0, others = 0;
  uint8_t size = 0;
};
constexpr size_t kHeadSize = 9;

void pack(std::string &bytes, const Head &head) {
  char packed[kHeadSize];
  std::memcpy(packed, &head.common, 4);
  std::memcpy(packed + 4, &head.others, 4);
  std::memcpy(packed + 8, &head.size, 1);
  bytes.append(packed, sizeof packed);
}

Head unpack(const char *packed) {
  Head head;
  std::memcpy(&head.common, packed, 4);
  std::memcpy(&head.others, packed + 4, 4);
  std::memcpy(&head.size, packed + 8, 1);
  return head;
}

// The character at the beginning of a text; empty: it is none.
std::string_view firstCharacter(std::string_view text) {
  for (size_t size = 1; size <= std::min<size_t>(4, text.size()); ++size) {
    if (kepserver::isUtf8(text.substr(0, size))) return text.substr(0, size);
  }
  return {};
}

std::string escaped(std::string_view text, bool isLabel) {
  std::string result;
  for (const char c : text) {
    if (c == '\\' || (c == '"' && isLabel)) result += '\\';
    if (c == '\n') {
      result += "\\n";
    } else {
      result += c;
    }
  }
  return result;
}

std::string headOf(const Family &family) {
  const char *const type = family.type == MetricType::kGauge     ? "gauge"
                           : family.type == MetricType::kCounter ? "counter"
                                                                 : "untyped";
  return "# HELP " + family.name + " " + escaped(family.help, false) + "\n# TYPE " + family.name + " " + type + "\n";
}

}  // namespace

std::string labelValue(std::string_view text) {
  std::string value;
  while (!text.empty()) {
    const std::string_view character = firstCharacter(text);
    const bool isControl =
        character.size() == 1 && character[0] != '\n' && (character[0] < ' ' || character[0] == 0x7F);
    const std::string_view shown = character.empty() || isControl ? kReplacement : character;
    if (value.size() + shown.size() > kMostLabelBytes) break;
    value += shown;
    text.remove_prefix(std::max<size_t>(character.size(), 1));
  }
  return escaped(value, true);
}

Samples::Samples(const std::vector<Family> &families) : families_(families), samples_(families.size()) {}

void Samples::begin(std::string labels) {
  common_.push_back(std::move(labels));
  if (there_.bucket_count() > kMostBuckets) there_ = {};  // to clear it takes as long as it is large
  there_.clear();
}

bool Samples::add(size_t family, std::string_view labels, std::string_view number, int source) {
  if (there_.size() >= kMostSeries || number.size() > UINT8_MAX) return false;
  const uint32_t place = placeOf(labels);
  const auto [there, isNew] = there_.emplace(uint64_t{family} << 32 | place, source);
  if (!isNew) return there->second != source;
  pack(samples_[family], {static_cast<uint32_t>(common_.size() - 1), place, static_cast<uint8_t>(number.size())});
  samples_[family].append(number);
  return true;
}

uint32_t Samples::placeOf(std::string_view labels) {
  const auto [known, isNew] = known_.emplace(labels, static_cast<uint32_t>(others_.size()));
  if (isNew) others_.push_back(&known->first);
  return known->second;
}

void Samples::write(const Pieces &take) const {
  std::string piece;
  for (size_t family = 0; family < samples_.size(); ++family) {
    const std::string &samples = samples_[family];
    if (samples.empty()) continue;
    const std::string &name = families_[family].name;
    piece += headOf(families_[family]);
    for (size_t at = 0; at < samples.size();) {
      const Head head = unpack(samples.data() + at);
      const std::string &common = common_[head.common], &others = *others_[head.others];
      const bool hasLabels = !common.empty() || !others.empty();
      piece.append(name).append(hasLabels ? "{" : "").append(common);
      piece.append(common.empty() || others.empty() ? "" : ",").append(others).append(hasLabels ? "} " : " ");
      piece.append(samples, at + kHeadSize, head.size) += '\n';
      at += kHeadSize + head.size;
      if (piece.size() < kPieceBytes) continue;
      if (!take(piece)) return;
      piece.clear();
    }
  }
  if (!piece.empty()) take(piece);
}

}  // namespace kepfleet
