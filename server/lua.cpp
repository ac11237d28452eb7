// lua.cpp: a names file spelled out, so that who reads it in Lua parses nothing: formats are fields with offsets.

#include "server/lua.hpp"

#include <array>
#include <string_view>

#include "server/text.hpp"

namespace kepserver {

namespace {

constexpr const char *kLayout = R"(-- Load it with dofile, or require; it returns one table:
--
--   version           1, the version of this layout
--   title             of the board, or nil
--   zone              of the board's times, or nil: a list of { since, minutes east of UTC }, in seconds since 1970
--   items[NAME]       an item, by the name in the catalogue:
--     reports         whether a collection asks it
--     label           of its sections, or nil
--     sections        [number] = name
--     named_by        the key whose value names a section other than 0, or nil
--     keys, tests     [key] = meaning, of a collection and of a self-test
--     keys_in, tests_in   [section][key] = meaning; look here first, then in keys or tests
--
-- A meaning has, where the names file has them: name, unit, help; kind ("gauge", "counter", "text", "log", "state");
-- scale and offset, as texts that tonumber takes (shown = sent x scale + offset) and decimals; states, [number] = word,
-- and bits, [bit] = word. A buffer's has size, in bytes, and fields: a list of meanings that have, too:
--
--   start, size       where the field lies in the buffer, in bytes
--   type              "uint", "int", "float", "time" (seconds since 1970), "string" (up to its first zero byte) or
--                     "bytes"
--   hex               true where the number is shown in hexadecimal
--
-- A field without a name is of no interest. Every number is big-endian.
)";

std::string luaText(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    if (byte < 0x20 || byte == 0x7F || c == '"' || c == '\\') {
      const std::string digits = std::to_string(byte);
      quoted += "\\" + std::string(3 - digits.size(), '0') + digits;
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

// A table's entries, each in the form "key = value, ".
class Entries {
 public:
  Entries &raw(std::string_view key, std::string_view value) {
    text_.append(text_.empty() ? "" : ", ").append(key).append(" = ").append(value);
    return *this;
  }
  Entries &text(std::string_view key, std::string_view value) {
    return value.empty() ? *this : raw(key, luaText(value));
  }
  Entries &number(std::string_view key, int64_t value) { return raw(key, std::to_string(value)); }
  Entries &words(std::string_view key, const std::map<int64_t, std::string> &words) {
    Entries inner;
    for (const auto &[number, word] : words) inner.raw("[" + std::to_string(number) + "]", luaText(word));
    return words.empty() ? *this : raw(key, inner.table());
  }

  std::string table() const { return text_.empty() ? "{}" : "{ " + text_ + " }"; }

 private:
  std::string text_;
};

void put(Entries &entries, const Meaning &meaning) {
  entries.text("name", meaning.name).text("unit", meaning.unit).text("help", meaning.help);
  if (meaning.kind) entries.text("kind", nameOf(*meaning.kind));
  if (meaning.scale) entries.text("scale", meaning.scale->text());
  if (meaning.offset) entries.text("offset", meaning.offset->text());
  if (meaning.decimals) entries.number("decimals", *meaning.decimals);
  entries.words("states", meaning.states).words("bits", meaning.bits);
}

std::string_view typeOf(Layout layout) {
  constexpr std::array<std::string_view, 6> kTypes = {"uint", "int", "float", "time", "string", "bytes"};
  return kTypes[static_cast<size_t>(layout)];
}

std::string keyText(const Key &key) {
  Entries entries;
  put(entries, key.meaning);
  if (key.fields.empty()) return entries.table();
  std::string fields;
  for (const Field &field : key.fields) {
    Entries one;
    one.number("start", static_cast<int64_t>(field.offset)).number("size", static_cast<int64_t>(field.size));
    one.text("type", typeOf(field.layout));
    if (field.hexadecimal) one.raw("hex", "true");
    put(one, field.meaning);
    fields += "\n          " + one.table() + ",";
  }
  entries.number("size", static_cast<int64_t>(key.size)).raw("fields", "{" + fields + " }");
  return entries.table();
}

std::string keysText(const Keys &keys, const std::string &indent) {
  std::string text = "{\n";
  for (const auto &[number, key] : keys)
    text += indent + "  [" + std::to_string(number) + "] = " + keyText(key) + ",\n";
  return text + indent + "}";
}

std::string setText(const KeySet &set, const std::string &name) {
  const std::string indent = "      ";
  std::string text = indent + name + " = " + keysText(set.keys, indent) + ",\n" + indent + name + "_in = {\n";
  for (const auto &[section, keys] : set.in) {
    text += indent + "  [" + std::to_string(section) + "] = " + keysText(keys, indent + "  ") + ",\n";
  }
  return text + indent + "},\n";
}

std::string itemText(const std::string &name, const Item &item) {
  std::string text = "    [" + luaText(name) + "] = {\n      reports = " + (item.reports() ? "true" : "false") + ",\n";
  if (!item.sections.label.empty()) text += "      label = " + luaText(item.sections.label) + ",\n";
  Entries sections;
  if (item.sections.namedBy) text += "      named_by = " + std::to_string(*item.sections.namedBy) + ",\n";
  for (const auto &[number, word] : item.sections.names)
    sections.raw("[" + std::to_string(number) + "]", luaText(word));
  text += "      sections = " + sections.table() + ",\n";
  return text + setText(item.keys, "keys") + setText(item.tests, "tests") + "    },\n";
}

// What the zone's clocks do as long as 32 bits of seconds last.
std::string zoneText(const absl::TimeZone &zone) {
  std::string text;
  absl::Time since = absl::UnixEpoch();
  absl::TimeZone::CivilTransition next;
  do {
    const int minutes = zone.At(since).offset / 60;
    text += (text.empty() ? "{ " : ", ") + ("{ " + std::to_string(absl::ToUnixSeconds(since)) + ", ") +
            std::to_string(minutes) + " }";
    if (!zone.NextTransition(since, &next)) break;
    since = zone.At(next.to).trans;
  } while (absl::ToUnixSeconds(since) <= UINT32_MAX);
  return text + " }";
}

}  // namespace

std::string luaNames(const Names &names, const std::string &origin) {
  std::string text = "-- Names of a board, made by kep-names --lua from " + printable(origin) + ".\n" + kLayout;
  text += "return {\n  version = 1,\n";
  if (!names.title.empty()) text += "  title = " + luaText(names.title) + ",\n";
  if (names.zone) text += "  zone = " + zoneText(*names.zone) + ",\n";
  text += "  items = {\n";
  for (const auto &[name, item] : names.items) text += itemText(name, item);
  return text + "  },\n}\n";
}

}  // namespace kepserver
