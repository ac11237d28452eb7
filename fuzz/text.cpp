// Splitting, trims, dates, and filtered lists of records against plain formulations of the same. The
// input is lines of text: what is to be done, its parameters, and its data.
#include <kep/ZuInfo.h>
#include <kep/ZuPrint.h>
#include <kep/ZuString.h>
#include <kep/ZuTime.h>

#include <regex>
#include <sstream>

#include "containers/codec_model.hpp"
#include "require.hpp"

namespace {

using codec::exactCopy, codec::exactText;

struct Lines {
  std::istringstream in;

  std::string line() {
    std::string line;
    std::getline(in, line);
    return line;
  }
  std::string text() { return line().c_str(); }  // up to a NUL
  int32_t number() { return static_cast<int32_t>(std::strtoll(line().c_str(), nullptr, 10)); }
  std::string rest() { return {std::istreambuf_iterator<char>(in), {}}; }
};

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

void split(Lines &in) {
  const int32_t maxFields = in.number();
  const std::string delimiter = in.text(), text = in.rest().c_str();
  const std::vector<std::string> expected = fieldsOf(text, delimiter, maxFields);
  const size_t written = expected.size() - (expected.size() > 1 && expected.back().empty());  // an empty one at the end

  const auto inPlace = exactText(text), exactDelimiter = exactText(delimiter);
  ZuString_Trim(inPlace.get());
  requireEqual(inPlace.get(), text);
  const auto slots = std::make_unique<char *[]>(written);
  const int32_t count = ZuString_Split(inPlace.get(), exactDelimiter.get(), slots.get(), maxFields);
  requireEqual(std::to_string(count), std::to_string(expected.size()));
  for (size_t i = 0; i < written; ++i) requireEqual(slots[i], expected[i]);
}

// Tokens step on by their width, whatever they wrote; `reach` is the room that all of it took.
std::string dateText(const tm &time, const std::string &pattern, size_t *reach) {
  const auto year = static_cast<int>(static_cast<unsigned>(time.tm_year) + 1900U);
  const int shortYear = time.tm_year % 100, month = time.tm_mon + 1;
  const std::pair<std::string, int> tokens[] = {
      {"YYYY", year},       {"YY", shortYear},    {"yy", shortYear},    {"MM", month},        {"mm", month},
      {"DD", time.tm_mday}, {"dd", time.tm_mday}, {"HH", time.tm_hour}, {"hh", time.tm_hour}, {"MI", time.tm_min},
      {"mi", time.tm_min},  {"SS", time.tm_sec},  {"ss", time.tm_sec}};
  std::string text;
  size_t out = 0;
  for (size_t i = 0; i < pattern.size();) {
    std::string piece = pattern.substr(i, 1);
    size_t width = 1, step = 1;
    for (const auto &[token, value] : tokens) {
      if (pattern.compare(i, token.size(), token) != 0) continue;
      width = token.size();
      const bool padded = token[0] < 'a';
      char digits[16];
      std::snprintf(digits, sizeof digits, "%0*d", padded ? static_cast<int>(width) : 1, value);
      piece = digits;
      step = padded || value >= 10 ? width : 1;
      break;
    }
    text = text.substr(0, out) + piece;
    *reach = std::max(*reach, text.size() + 1);
    out += step;
    i += width;
  }
  return text;
}

void date(Lines &in) {
  const long long stamp = std::strtoll(in.line().c_str(), nullptr, 10);
  const time_t t = stamp == 0 ? 1 : static_cast<time_t>(stamp);  // 0 would be now
  const std::string pattern = in.rest().c_str();
  const tm *local = std::localtime(&t);
  size_t reach = 1;
  const std::string expected = dateText(local ? *local : tm{}, pattern, &reach);
  const auto out = exactCopy(std::string(reach, '#')), exactPattern = exactText(pattern);
  requireEqual(ZuTime_Format(out.get(), exactPattern.get(), t), expected);
}

struct Record {
  std::string key, value;
};

// A record of the next two lines. Its value is as it stands when it ends with '!', else made to fit the format that the
// key may be.
Record readRecord(Lines &in) {
  const std::string key = in.line().substr(0, 254), value = in.line();
  const auto fields = codec::parse(key);
  const bool fits = !value.empty() && value.back() != '!' && codec::sizeOf(fields) <= 2000;
  std::string whole = fits ? codec::fill(fields, value) : value;
  if (whole.compare(0, 4, std::string(4, '\0')) == 0) whole[0] = 1;  // a stamp of 0 would show as the moment's
  return {key, whole};
}

struct Filter {
  int32_t id, code, type, skip, limit;
  std::string hex1, hex2;
};

bool beginsWith(const std::string &data, const std::string &hex) {
  std::string wanted;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    wanted += static_cast<char>(std::strtol(hex.substr(i, 2).c_str(), nullptr, 16));
  }
  return (data + std::string(wanted.size(), '\0')).compare(0, wanted.size(), wanted) == 0;
}

bool passes(const Record &record, const Filter &filter) {
  static const std::regex structured("TBhI[0-9]+S[0-9]+S[0-9]+S");
  const std::string &value = record.value;
  const auto fields = codec::parse(record.key);
  if (!std::regex_match(record.key, structured)) return false;
  if (codec::sizeOf(fields) != static_cast<int64_t>(value.size())) return false;
  const uint32_t code = codec::numberOf(value.substr(7, 4));
  return (filter.id == -1 ||
          static_cast<int16_t>(filter.id) == static_cast<int16_t>(codec::numberOf(value.substr(5, 2)))) &&
         beginsWith(value.substr(11, fields[4].size), filter.hex1) &&
         beginsWith(value.substr(11 + fields[4].size, fields[5].size), filter.hex2) &&
         (filter.code == 0 || static_cast<uint32_t>(filter.code) == code || (filter.code == -1 && code != 0)) &&
         (filter.type == 0 || static_cast<char>(filter.type) == value[4]);
}

std::string filteredText(const std::vector<Record> &records, const Filter &filter) {
  std::string text;
  int counter = 0;
  for (const Record &record : records) {
    if (!passes(record, filter) || ++counter <= filter.skip || (filter.limit && counter > filter.limit)) continue;
    text += "index=" + std::to_string(counter) + "," + codec::dumpText("*" + record.key, record.value);
  }
  return text + "Total count " + std::to_string(counter) + "\n";
}

void listRecords(Lines &in) {
  const Filter filter{in.number(), in.number(), in.number(), in.number(), in.number(), in.text(), in.text()};
  const auto hex1 = exactText(filter.hex1), hex2 = exactText(filter.hex2);
  ZuInfo *store = ZuInfo_New(0);
  std::vector<Record> records;
  while (in.in.peek() != EOF) {
    const auto &[key, value] = records.emplace_back(readRecord(in));
    ZuInfo_Append(store, key.data(), static_cast<int32_t>(key.size()), value.data(),
                  static_cast<int32_t>(value.size()));
  }
  platform::takePrinted();
  ZuInfo_ShowInfo(store, filter.id, hex1.get(), hex2.get(), filter.code, filter.type, filter.skip, filter.limit);
  ZuPrint_Puts("", 0);  // ends the line
  requireEqual(platform::takePrinted(), filteredText(records, filter));
  ZuInfo_Release(store);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return setenv("TZ", "UTC0", 1); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Lines in{std::istringstream(std::string(reinterpret_cast<const char *>(data), size))};
  const std::string what = in.line();
  if (what == "split") return split(in), 0;
  if (what == "date") return date(in), 0;
  if (what == "records") return listRecords(in), 0;
  return -1;  // not worth keeping
}
