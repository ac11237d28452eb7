// Splitting against a plain formulation of it, and filtered lists of records. The input is lines of text: what is to be
// done, its parameters, and its data.
#include <kep/ZuInfo.h>
#include <kep/ZuString.h>

#include <sstream>

#include "containers/codec_model.hpp"
#include "require.hpp"

namespace {

// A line, up to a NUL.
std::string text(std::istream &in) {
  std::string line;
  std::getline(in, line);
  return line.c_str();
}

int32_t number(std::istream &in) { return static_cast<int32_t>(std::strtoll(text(in).c_str(), nullptr, 10)); }

std::vector<std::string> fieldsOf(std::string rest, const std::string &delimiter, int32_t maxFields) {
  std::vector<std::string> fields;
  while (!rest.empty() && (maxFields == 0 || static_cast<int32_t>(fields.size()) + 1 < maxFields)) {
    const size_t at = rest.find(delimiter, fields.empty() ? 0 : 1);  // the first of a later field begins no delimiter
    if (at == std::string::npos) break;
    fields.push_back(rest.substr(0, at));
    rest.erase(0, delimiter.empty() ? rest.size() : at + delimiter.size());
  }
  fields.push_back(rest);
  return fields;
}

void split(std::istream &in) {
  const int32_t maxFields = number(in);
  const std::string delimiter = text(in), whole = std::string(std::istreambuf_iterator<char>(in), {}).c_str();
  const std::vector<std::string> expected = fieldsOf(whole, delimiter, maxFields);
  const size_t written = expected.size() - (expected.size() > 1 && expected.back().empty());  // an empty one at the end

  const auto inPlace = codec::exactText(whole), exactDelimiter = codec::exactText(delimiter);
  const auto slots = std::make_unique<char *[]>(written);
  const int32_t count = ZuString_Split(inPlace.get(), exactDelimiter.get(), slots.get(), maxFields);
  requireEqual(std::to_string(count), std::to_string(expected.size()));
  for (size_t i = 0; i < written; ++i) requireEqual(slots[i], expected[i]);
}

// What is listed is for the sanitizers to watch. Values are made to fit the formats that their keys may be.
void listRecords(std::istream &in) {
  const int32_t id = number(in), code = number(in), type = number(in), skip = number(in), limit = number(in);
  const auto hex1 = codec::exactText(text(in)), hex2 = codec::exactText(text(in));
  ZuInfo *store = ZuInfo_New(0);
  while (in.peek() != EOF) {
    const std::string key = text(in), bytes = text(in);
    const auto fields = codec::parse(key);
    const bool fits = bytes.find('!') == std::string::npos && codec::sizeOf(fields) <= 2000;
    const std::string value = fits ? codec::fill(fields, bytes) : bytes;
    ZuInfo_Append(store, key.data(), static_cast<int32_t>(key.size()), value.data(),
                  static_cast<int32_t>(value.size()));
  }
  ZuInfo_ShowInfo(store, id, hex1.get(), hex2.get(), code, type, skip, limit);
  platform::takePrinted();
  ZuInfo_Release(store);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char *>(data), size));
  const std::string what = text(in);
  if (what == "split") return split(in), 0;
  if (what == "records") return listRecords(in), 0;
  return -1;  // not worth keeping
}
