// print.cpp: what JSON and CSV make of bytes.

#include "server/print.hpp"

#include <nlohmann/json.hpp>

namespace kepserver {

namespace {

using Json = nlohmann::json;

void putJsonText(Sink &out, std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t size = portionOf(bytes);
    const std::string_view portion = bytes.substr(0, size);
    if (isPlain(portion)) {  // as is nearly all there is
      out << portion;
    } else {
      const std::string text = Json(portion).dump(-1, ' ', true, Json::error_handler_t::replace);
      out << std::string_view(text).substr(1, text.size() - 2);
    }
    bytes.remove_prefix(size);
  }
}

bool beginsAsFormula(std::string_view bytes) {
  return !bytes.empty() && std::string_view("=+-@").find(bytes[0]) != std::string_view::npos;
}

}  // namespace

JsonLine::JsonLine(Sink &out, std::string_view row, const Style &style) : out_(out), bigAsText_(style.bigAsText) {
  out_ << R"({"row":")" << row << '"';
}

Sink &JsonLine::begin(std::string_view key) { return out_ << ",\"" << key << "\":"; }

JsonLine &JsonLine::word(std::string_view key, std::string_view word) {
  begin(key) << '"' << word << '"';
  return *this;
}

JsonLine &JsonLine::hex(std::string_view key, std::string_view bytes) {
  putHex(begin(key) << '"', bytes);
  out_ << '"';
  return *this;
}

JsonLine &JsonLine::flag(std::string_view key, bool value) {
  begin(key) << (value ? "true" : "false");
  return *this;
}

JsonLine &JsonLine::text(std::string_view key, std::string_view bytes) {
  putJsonText(begin(key) << '"', bytes);
  out_ << '"';
  return isUtf8(bytes) ? *this : hex(std::string(key) + "_hex", bytes);
}

void putLayout(Sink &out, std::string_view layout, int version) {
  JsonLine(out, "layout").word("layout", layout).number("version", version).end();
}

CsvLine &CsvLine::word(std::string_view word) {
  out_ << ',' << word;
  return *this;
}

CsvLine &CsvLine::hex(std::string_view bytes) {
  putHex(out_ << ',', bytes);
  return *this;
}

CsvLine &CsvLine::empty(size_t count) {
  for (; count > 0; --count) out_ << ',';
  return *this;
}

CsvLine &CsvLine::text(std::string_view bytes) {
  const std::string_view quote = bytes.find_first_of(",\"") == std::string_view::npos ? "" : "\"";
  out_ << ',' << quote << (!raw_ && beginsAsFormula(bytes) ? "'" : "");
  // A quote is doubled. It ends whatever stands in front of it, so that no character is cut.
  for (size_t size; (size = bytes.find('"') + 1) != 0; bytes.remove_prefix(size)) {
    putPrintable(out_, bytes.substr(0, size));
    out_ << '"';
  }
  putPrintable(out_, bytes);
  out_ << quote;
  return *this;
}

}  // namespace kepserver
