// draft.cpp: one table for each item, one line for each key.

#include "server/draft.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>

#include "server/text.hpp"
#include "server/times.hpp"

namespace kepserver {

namespace {

constexpr size_t kMostShown = 40;  // bytes of a value

struct Found {
  const Value *first = nullptr;
  bool repeats = false;  // in a section
};
using FoundKeys = std::map<int32_t, Found>;

struct FoundItem {
  FoundKeys outside, inside;  // of sections
  FoundKeys tests;
  std::set<int32_t> sections;
};
using FoundItems = std::map<std::string, FoundItem>;

void note(FoundKeys &keys, const Value &value) {
  Found &found = keys[value.key];
  found.repeats |= found.first && found.first->section == value.section;
  if (!found.first) found.first = &value;
}

void noteRun(const Run &run, FoundItems &items) {
  for (const auto &[index, name] : run.catalogue) items[name];
  for (const std::string &name : run.tested) items[name];
  for (const Value &value : run.values) {
    FoundItem &item = items[std::string(itemName(run, value))];
    if (run.selfTest) {
      note(item.tests, value);
      continue;
    }
    note(value.section == 0 ? item.outside : item.inside, value);
    if (value.section != 0) item.sections.insert(value.section);
  }
}

std::string shownOf(const Value &value) {
  const std::string start = value.bytes.substr(0, kMostShown);
  const std::string rest = value.bytes.size() > kMostShown ? " .." : "";
  switch (value.kind) {
    case ValueKind::kString: return "\"" + printable(start) + "\"" + rest;
    case ValueKind::kBuffer: return std::to_string(value.bytes.size()) + " bytes: " + hex(start) + rest;
    default: return std::to_string(value.number);
  }
}

std::string lineOf(int32_t key, const Found &found, const std::string &prefix) {
  const std::string number = std::to_string(key);
  const bool isLog = found.repeats && readTime(found.first->bytes);
  std::string line = number + " = { name = \"" + prefix + " " + number + "\"";
  if (found.first->kind == ValueKind::kString) line += isLog ? ", kind = \"log\"" : ", kind = \"text\"";
  line += " }  # " + shownOf(*found.first);
  if (found.first->kind == ValueKind::kBuffer) line += "; give it a format and fields";
  return line + "\n";
}

std::string tableOf(const std::string &title, const FoundKeys &keys, const std::string &prefix) {
  if (keys.empty()) return "";
  std::string text = "\n[" + title + "]\n";
  for (const auto &[key, found] : keys) text += lineOf(key, found, prefix);
  return text;
}

// A name as TOML has it: bare, or with whatever could end the quotes escaped.
std::string tomlName(const std::string &name) {
  const bool isBare = !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  });
  if (isBare) return name;
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<uint8_t>(c);
    const bool escapes = byte < 0x20 || byte == 0x7F || c == '"' || c == '\\';
    text += escapes ? "\\u00" + hex({&c, 1}) : std::string(1, c);
  }
  return "\"" + text + "\"";
}

std::string itemText(const std::string &name, const FoundItem &item) {
  if (name.empty() || !isUtf8(name)) {
    return "\n# An item whose name is \"" + printable(name) + "\" cannot be named here.\n";
  }
  const std::string title = "item." + tomlName(name);
  std::string text;
  if (!item.sections.empty()) {
    text += "\n[" + title +
            "]\n# sections = { label = \"section\", named_by = " + std::to_string(item.inside.begin()->first) +
            " }  # sections " + std::to_string(*item.sections.begin()) + " to " +
            std::to_string(*item.sections.rbegin()) + " came\n";
  }
  if (item.sections.empty()) {
    text += tableOf(title + ".keys", item.outside, "key");
  } else {
    text += tableOf(title + ".keys", item.inside, "key") + tableOf(title + ".keys_in.0", item.outside, "key");
  }
  text += tableOf(title + ".tests", item.tests, "test");
  return text.empty() ? "\n# The item \"" + printable(name) + "\" sent nothing.\n" : text;
}

}  // namespace

std::string draftNames(const Run &collection, const Run &selfTest) {
  const Run &known = collection.identity ? collection : selfTest;
  const std::string identity = known.identity ? hex(known.identity->bytes.substr(0, 2)) : "0000";
  std::string text =
      "# A first draft of a names file, made by kep-names from what a board sent: behind each key stands a value that\n"
      "# came for it. Give the keys their names, units, scales, states and, for tests, what passes: docs/names.md.\n"
      "# In a folder of names files its name is " +
      identity + ".toml.\n\n[board]\ntitle = \"Board " + identity + "\"\n# zone = \"UTC\"\n";
  FoundItems items;
  noteRun(collection, items);
  noteRun(selfTest, items);
  for (const auto &[name, item] : items) text += itemText(name, item);
  return text;
}

}  // namespace kepserver
