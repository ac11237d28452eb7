// names.cpp: names files of any text, some of them included. Each is accepted, or refused with a line of its own; what
// is accepted shows and judges every value, compiles, and has drafts that are accepted.
#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>

#include "require.hpp"
#include "server/draft.hpp"
#include "server/lua.hpp"
#include "server/names.hpp"
#include "server/present.hpp"
#include "server/text.hpp"

namespace {

using namespace kepserver;

using Files = std::map<std::string, std::string>;

// A line "=== PATH" begins another file.
Files filesIn(const std::string &input) {
  std::string path = "top.toml";
  Files files = {{path, ""}};
  std::istringstream in(input);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("=== ", 0) == 0) {
      path = line.substr(4);
    } else {
      files[path] += line + (in.eof() ? "" : "\n");
    }
  }
  return files;
}

Names parse(const Files &files) {
  const auto read = [&files](const std::string &path) {
    const auto found = files.find(path);
    return found != files.end() ? found->second : throw std::runtime_error("there is none");
  };
  return parseNames(files.at("top.toml"), "top.toml", read);
}

void requireTold(const NamesError &error, const Files &files) {
  const auto file = files.find(error.file);
  require(file != files.end() ? "" : "an error in no file: " + error.text());
  const auto lines = std::count(file->second.begin(), file->second.end(), '\n') + 1;
  require(error.line >= 1 && error.line <= static_cast<size_t>(lines) ? ""
                                                                      : "an error without a line: " + error.text());
  require(!error.reason.empty() && isUtf8(error.reason) ? "" : "an error without a reason: " + error.text());
}

// A value of every kind for every key, made of the input; a key is followed by one that is not named.
Run runOf(const Names &names, const std::string &input, bool selfTest) {
  Run run;
  run.selfTest = selfTest;
  int32_t index = 0;
  const auto add = [&](int64_t section, const Keys &keys) {
    for (const auto &[id, key] : keys) {
      Value value{ValueKind::kInt,  index, static_cast<int32_t>(section), static_cast<int32_t>(id), 0, "",
                  run.tested.size()};
      value.number = static_cast<int64_t>(std::hash<std::string>()(input)) >> (run.values.size() % 64);
      value.bytes = input.substr(0, key.fields.empty() ? 20 : std::min<size_t>(key.size, 4096));
      value.bytes.resize(std::min<size_t>(key.size, 4096), '\x7F');
      for (const ValueKind kind : {ValueKind::kBuffer, ValueKind::kLong, ValueKind::kString, ValueKind::kInt}) {
        value.kind = kind;
        if (kind == ValueKind::kInt) value.number = static_cast<int32_t>(value.number);
        run.values.push_back(value);
      }
    }
  };
  for (const auto &[name, item] : names.items) {
    if (selfTest) run.tested.push_back(name);
    if (!selfTest) run.catalogue[++index] = name;
    const KeySet &set = selfTest ? item.tests : item.keys;
    add(0, set.keys);
    for (const auto &[section, keys] : set.in) add(section, keys);
  }
  return run;
}

void show(const Names &names, const Run &run) {
  const RunNames lookup(names, run);
  std::vector<Shown> shown;
  for (const Value &value : run.values) {
    const Key *const key = lookup.key(value);
    require(key ? "" : "a named key is not found");
    lookup.section(value);
    present(names, key, sentOf(value), shown);
  }
  for (const Shown &one : shown) {
    require(!one.meaning->name.empty() || one.misfit ? "" : "a value is shown without its name");
    require(one.number.empty() || isPlain(one.number) ? "" : "no number: " + one.number);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input(reinterpret_cast<const char *>(data), size);
  const Files files = filesIn(input);
  Names names;
  try {
    names = parse(files);
  } catch (const NamesError &error) {
    requireTold(error, files);
    return 0;
  }
  const Run collection = runOf(names, input, false), selfTest = runOf(names, input, true);
  show(names, collection);
  show(names, selfTest);
  require(judge(names, selfTest).missing.empty() ? "" : "a test that came is missing");
  luaNames(names, "top.toml");
  try {
    parse({{"top.toml", draftNames(collection, selfTest)}});
  } catch (const NamesError &error) {
    require("a draft is refused: " + error.text());
  }
  return 0;
}
