// names.cpp: from TOML to what is known of a board.

#include "server/names.hpp"

#include <algorithm>
#include <array>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <utility>

#include "server/text.hpp"
#include "server/times.hpp"
#include "server/toml_table.hpp"

namespace kepserver {

namespace {

constexpr size_t kMaxMebibytes = 1;
constexpr size_t kMaxFiles = 64;
constexpr int64_t kMaxBufferSize = 64 << 20;

constexpr std::array<std::string_view, 5> kKinds = {"gauge", "counter", "text", "log", "state"};

using File = TomlFile;
using Table = TomlTable;

// ---- what a value means

std::map<int64_t, std::string> readWords(Table &table, std::string_view name, int64_t smallest, int64_t largest) {
  std::map<int64_t, std::string> words;
  const std::optional<Table> entries = table.table(name);
  if (!entries) return words;
  if (entries->empty()) table.fail(name, "expected words by number, such as { 0 = \"down\", 1 = \"up\" }");
  entries->eachNumbered(smallest, largest, [&](int64_t number, const toml::node &node) {
    if (!node.is_string()) table.file().fail(node, "expected a word, not " + std::string(typeOf(node)));
    words[number] = checkedText(table.file(), node, **node.as_string());
  });
  return words;
}

Rule readRange(Table table) {
  Range range{table.number("min"), table.number("max")};
  if (const auto pattern = table.text("pattern")) {
    if (range.min || range.max) table.fail("a pattern and a range; expected one of them");
    table.finish();
    return Pattern{*pattern};
  }
  table.finish();
  if (!range.min && !range.max) table.fail("pass: expected min, max or both, or a pattern");
  if (range.min && range.max && *range.max < *range.min) table.fail("min", "expected to be at most max");
  return range;
}

std::optional<Rule> readRule(Table &table) {
  const toml::node *const node = table.take("pass");
  if (!node) return std::nullopt;
  if (node->is_table()) return readRange(Table(table.file(), *node));
  if (node->is_string()) return Word{*table.text("pass")};
  if (!node->is_number()) table.fail("pass", "expected a number, a word, { min, max } or { pattern }");
  const std::optional<Decimal> number = table.number("pass");
  return Range{number, number};
}

// What belongs to numbers makes a gauge of a value of which nothing else is said, and is refused with any other kind.
void settleKind(const Table &table, Meaning &meaning) {
  const bool hasWords = !meaning.states.empty() || !meaning.bits.empty();
  if (!meaning.states.empty() && !meaning.bits.empty()) table.fail("bits", "expected states or bits, not both");
  if (hasWords && !meaning.kind) meaning.kind = Kind::kState;
  if (hasWords && *meaning.kind != Kind::kState) table.fail("kind", "expected \"state\" with states or bits");
  for (const std::string_view name : {"unit", "scale", "offset", "decimals"}) {
    if (!table.has(name)) continue;
    if (!meaning.kind) meaning.kind = Kind::kGauge;
    if (*meaning.kind == Kind::kGauge || *meaning.kind == Kind::kCounter) continue;
    table.fail(name, "expected with a gauge or a counter only, not with " + std::string(nameOf(*meaning.kind)));
  }
}

void settleRule(const Table &table, Meaning &meaning) {
  if (!meaning.pass) return;
  const bool ofNumber = std::holds_alternative<Range>(*meaning.pass);
  if (!meaning.kind) meaning.kind = ofNumber ? Kind::kGauge : Kind::kText;
  const bool isNumber = *meaning.kind == Kind::kGauge || *meaning.kind == Kind::kCounter || !meaning.bits.empty();
  const bool isText = *meaning.kind == Kind::kText || *meaning.kind == Kind::kLog;
  if (ofNumber && isText) table.fail("pass", "expected a word or a pattern for a text");
  if (!ofNumber && isNumber) table.fail("pass", "expected a number or a range for a number");
  const Word *const word = std::get_if<Word>(&*meaning.pass);
  if (!word || meaning.states.empty()) return;
  const bool known = std::any_of(meaning.states.begin(), meaning.states.end(),
                                 [word](const auto &state) { return state.second == word->text; });
  if (!known) table.fail("pass", inQuotes(word->text) + " is no state; expected one of the states");
}

Meaning readMeaning(Table &table, bool isTest) {
  Meaning meaning;
  const std::optional<std::string> name = table.text("name");
  if (!name) table.fail("no name; expected name = \"...\"");
  meaning.name = *name;
  meaning.unit = table.text("unit").value_or("");
  if (const auto kind = table.text("kind")) {
    const auto found = std::find(kKinds.begin(), kKinds.end(), *kind);
    if (found == kKinds.end()) table.fail("kind", "expected gauge, counter, text, log or state");
    meaning.kind = static_cast<Kind>(found - kKinds.begin());
  }
  meaning.scale = table.number("scale");
  if (meaning.scale && meaning.scale->isZero()) table.fail("scale", "expected any number but 0");
  meaning.offset = table.number("offset");
  if (meaning.scale) meaning.decimals = meaning.scale->decimals();
  if (const auto decimals = table.whole("decimals", 0, Decimal::kMostDecimals)) {
    meaning.decimals = static_cast<int>(*decimals);
  }
  meaning.states = readWords(table, "states", INT64_MIN, INT64_MAX);
  meaning.bits = readWords(table, "bits", 0, 63);
  meaning.help = table.text("help").value_or("");
  if (isTest) meaning.pass = readRule(table);
  settleKind(table, meaning);
  settleRule(table, meaning);
  return meaning;
}

// ---- buffers

struct Letter {
  char letter;
  int64_t count;  // of s and S
};

std::vector<Letter> readFormat(const Table &table, const std::string &format) {
  std::vector<Letter> letters;
  int64_t count = 0, total = 0;
  bool counted = false;
  for (const char c : format) {
    const std::string place = " in " + inQuotes(format);
    if (c >= '0' && c <= '9') {
      count = std::min(count * 10 + (c - '0'), kMaxBufferSize + 1);
      counted = true;
      continue;
    }
    const bool isText = c == 's' || c == 'S';
    if (std::string_view("BbHhIiTsS").find(c) == std::string_view::npos) {
      table.fail("format", inQuotes({&c, 1}) + place + "; expected the letters B, H, I, s in either case, and T");
    }
    if (isText && count == 0) table.fail("format", inQuotes({&c, 1}) + place + "; expected a count in front of it");
    if (!isText && counted) table.fail("format", "a count" + place + "; expected in front of s and S only");
    letters.push_back({c, count});
    total += count;
    if (total > kMaxBufferSize) table.fail("format", "expected no more than 64 MiB");
    count = 0;
    counted = false;
  }
  if (counted) table.fail("format", "ends with a count; expected a letter behind it");
  return letters;
}

void readAs(Table &table, Field &field) {
  const std::optional<std::string> as = table.text("as");
  if (!as) return;
  const std::string expected = field.size == 4 ? "f" : field.size == 8 ? "i64, u64 or d" : "";
  const bool isBytes = field.layout == Layout::kText || field.layout == Layout::kBytes;
  if (!isBytes || expected.empty()) table.fail("as", "expected with a field of 4s or 8s only");
  if (*as == "f" && field.size == 4) {
    field.layout = Layout::kReal;
  } else if (field.size == 8 && (*as == "i64" || *as == "u64" || *as == "d")) {
    field.layout = *as == "d" ? Layout::kReal : *as == "i64" ? Layout::kSigned : Layout::kUnsigned;
  } else {
    table.fail("as", inQuotes(*as) + "; expected " + expected + " for " + std::to_string(field.size) + " bytes");
  }
  field.hexadecimal = false;
}

void settleField(const Table &table, Field &field) {
  const Meaning &meaning = field.meaning;
  const bool isText = meaning.kind == Kind::kText;
  if (field.layout == Layout::kBytes && isText) field.layout = Layout::kText;
  if (meaning.kind == Kind::kLog) table.fail("kind", "expected for a whole value, not for a field");
  const bool holdsText = field.layout == Layout::kText || field.layout == Layout::kBytes;
  if (meaning.kind && field.layout == Layout::kTime) table.fail("T is a time; expected name and help only");
  const bool words = !meaning.states.empty() || !meaning.bits.empty();
  if (words && field.layout == Layout::kReal) table.fail("states and bits; expected with a whole number only");
  if (meaning.isNumber() && holdsText) table.fail("s is a text; expected as, or what belongs to a text");
  if (isText && !holdsText) table.fail("kind", "expected with s and S only");
  if (meaning.isNumber()) field.hexadecimal = false;
}

Field readField(const File &file, const toml::node &node, const Letter &letter, bool isTest) {
  Table table(file, node);
  Field field;
  field.hexadecimal = letter.letter == 'B' || letter.letter == 'H' || letter.letter == 'I';
  switch (letter.letter) {
    case 'B':
    case 'b': field.size = 1, field.layout = Layout::kUnsigned; break;
    case 'H':
    case 'h': field.size = 2, field.layout = letter.letter == 'H' ? Layout::kUnsigned : Layout::kSigned; break;
    case 'I':
    case 'i': field.size = 4, field.layout = letter.letter == 'I' ? Layout::kUnsigned : Layout::kSigned; break;
    case 'T': field.size = 4, field.layout = Layout::kTime; break;
    default:
      field.size = static_cast<size_t>(letter.count);
      field.layout = letter.letter == 's' ? Layout::kText : Layout::kBytes;
  }
  if (table.empty()) return field;
  readAs(table, field);
  field.meaning = readMeaning(table, isTest);
  table.finish();
  settleField(table, field);
  return field;
}

void readFields(Table &table, Key &key, bool isTest) {
  const std::vector<Letter> letters = readFormat(table, *table.text("format"));
  const toml::node *const node = table.take("fields");
  const toml::array *const list = node ? node->as_array() : nullptr;
  if (!list) table.fail("fields", "expected a list with a table for each letter of the format");
  if (list->size() != letters.size()) {
    table.fail("fields", std::to_string(list->size()) + " for a format of " + std::to_string(letters.size()) +
                             "; expected one for each letter");
  }
  for (size_t i = 0; i < letters.size(); ++i) {
    key.fields.push_back(readField(table.file(), (*list)[i], letters[i], isTest));
    key.fields.back().offset = key.size;
    key.size += key.fields.back().size;
  }
}

// ---- keys, items, faults

// What a place in the file lets a key be.
enum class Place { kCollection, kSelfTest, kFaultNumber, kFaultData };

Key readKey(const File &file, const toml::node &node, Place place) {
  Table table(file, node);
  Key key;
  if (place != Place::kFaultNumber && table.has("format")) {
    key.meaning.name = table.text("name").value_or("");
    key.meaning.help = table.text("help").value_or("");
    readFields(table, key, place == Place::kSelfTest);
    table.finish();
    const auto hasName = [](const Field &field) { return !field.meaning.name.empty(); };
    if (key.meaning.name.empty() && std::none_of(key.fields.begin(), key.fields.end(), hasName)) {
      table.fail("no name; expected one of the buffer or of its fields");
    }
    return key;
  }
  key.meaning = readMeaning(table, place == Place::kSelfTest);
  const std::optional<Kind> kind = key.meaning.kind;
  if (place == Place::kFaultNumber && (kind == Kind::kText || kind == Kind::kLog)) {
    table.fail("kind", "expected that of a number");
  }
  if (place == Place::kFaultData && kind && kind != Kind::kText)
    table.fail("data; expected a format, or kind \"text\"");
  if (place != Place::kFaultNumber && table.take("format") == nullptr && table.take("fields")) {
    table.fail("fields", "expected together with a format");
  }
  table.finish();
  return key;
}

void readKeys(Table &parent, std::string_view name, Place place, Keys &keys) {
  const bool ofFault = place == Place::kFaultNumber || place == Place::kFaultData;
  if (const std::optional<Table> table = parent.table(name)) {
    table->eachNumbered(ofFault ? 0 : INT32_MIN, ofFault ? int64_t{UINT32_MAX} : INT32_MAX,
                        [&](int64_t id, const toml::node &node) { keys[id] = readKey(parent.file(), node, place); });
  }
}

void readKeySet(Table &parent, const std::string &name, Place place, KeySet &set) {
  readKeys(parent, name, place, set.keys);
  if (const std::optional<Table> sections = parent.table(name == "keys" ? "keys_in" : "tests_in")) {
    sections->eachNumbered(INT32_MIN, INT32_MAX, [&](int64_t section, const toml::node &node) {
      Table(parent.file(), node).eachNumbered(INT32_MIN, INT32_MAX, [&](int64_t id, const toml::node &key) {
        set.in[section][id] = readKey(parent.file(), key, place);
      });
    });
  }
}

Sections readSections(Table table) {
  Sections sections;
  sections.label = table.text("label").value_or("");
  sections.names = readWords(table, "names", INT32_MIN, INT32_MAX);
  sections.namedBy = table.whole("named_by", INT32_MIN, INT32_MAX);
  table.finish();
  if (sections.namedBy && !sections.names.empty()) table.fail("names", "expected names or named_by, not both");
  return sections;
}

void readItem(const File &file, const std::string &name, const toml::node &node, Names &names) {
  Table table(file, node);
  Item &item = names.items[name];
  if (const auto reports = table.flag("reports")) item.saysReports = reports;
  if (const auto sections = table.table("sections")) item.sections = readSections(*sections);
  readKeySet(table, "keys", Place::kCollection, item.keys);
  readKeySet(table, "tests", Place::kSelfTest, item.tests);
  table.finish();
}

void readFault(const File &file, const std::string &name, const toml::node &node, Names &names) {
  Table table(file, node);
  FaultNames &fault = names.faults[name];
  readKeys(table, "registers", Place::kFaultNumber, fault.registers);
  readKeys(table, "register_data", Place::kFaultData, fault.registerData);
  readKeys(table, "counters", Place::kFaultNumber, fault.counters);
  readKeys(table, "counter_data", Place::kFaultData, fault.counterData);
  readKeys(table, "values", Place::kFaultData, fault.values);
  table.finish();
}

void readBoard(Table table, Names &names) {
  if (const auto title = table.text("title")) names.title = *title;
  if (const auto zone = table.text("zone")) {
    names.zone = readZone(*zone);
    if (!names.zone) {
      table.fail("zone", inQuotes(*zone) + "; expected UTC, an offset such as +05:30, or one such as Europe/Berlin");
    }
  }
  table.finish();
}

// ---- files

// Reads each file once, and first what it includes: the including file's own goes before it.
class Loader {
 public:
  explicit Loader(const FileReader &read) : read_(read) {}

  void load(std::string_view text, const std::string &path) {
    read_files_.insert(path);
    open_.push_back(path);
    readToml(text, path, kMaxMebibytes, [this](Table &root) { readFile(root); });
    open_.pop_back();
  }

  Names names;

 private:
  void readFile(Table &table) {
    const File &file = table.file();
    if (const toml::node *const node = table.take("include")) includeAll(file, *node);
    if (const auto board = table.table("board")) readBoard(*board, names);
    if (const auto items = table.table("item")) {
      items->eachNamed([&](const std::string &name, const toml::node &node) { readItem(file, name, node, names); });
    }
    if (const auto faults = table.table("fault")) {
      faults->eachNamed([&](const std::string &name, const toml::node &node) { readFault(file, name, node, names); });
    }
  }

  void includeAll(const File &file, const toml::node &node) {
    if (const toml::array *const list = node.as_array()) {
      for (const toml::node &entry : *list) include(file, entry);
    } else {
      include(file, node);
    }
  }

  void include(const File &file, const toml::node &node) {
    if (!node.is_string())
      file.fail(node, "include: expected a file or a list of files, not " + std::string(typeOf(node)));
    const std::filesystem::path folder = std::filesystem::path(file.path).parent_path();
    const std::string path = (folder / checkedText(file, node, **node.as_string())).lexically_normal().string();
    if (std::find(open_.begin(), open_.end(), path) != open_.end()) {
      file.fail(node, "include: " + path + " includes this file; expected no circle");
    }
    if (read_files_.count(path) != 0) return;
    if (read_files_.size() == kMaxFiles) file.fail(node, "include: expected no more than 64 files");
    std::string text;
    try {
      text = read_(path);
    } catch (const std::runtime_error &error) {
      file.fail(node, "include: " + path + ": " + error.what());
    }
    load(text, path);
  }

  const FileReader &read_;
  std::set<std::string> read_files_;
  std::vector<std::string> open_;  // the file that is read, and those that include it
};

const Key *findIn(const Keys &keys, int64_t id) {
  const auto found = keys.find(id);
  return found == keys.end() ? nullptr : &found->second;
}

template <class Map>
const typename Map::mapped_type *findName(const Map &map, std::string_view name) {
  const auto found = map.find(name);
  return found == map.end() ? nullptr : &found->second;
}

}  // namespace

std::string_view nameOf(Kind kind) { return kKinds[static_cast<size_t>(kind)]; }

bool Meaning::isNumber() const { return kind && *kind != Kind::kText && *kind != Kind::kLog; }

const Key *KeySet::find(int64_t section, int64_t key) const {
  const auto own = in.find(section);
  const Key *const found = own == in.end() ? nullptr : findIn(own->second, key);
  return found ? found : findIn(keys, key);
}

const Key *FaultNames::find(FaultRecord record, uint32_t id) const {
  switch (record) {
    case FaultRecord::kRegister:
    case FaultRecord::kRegister64: return findIn(registers, id);
    case FaultRecord::kRegisterData: return findIn(registerData, id);
    case FaultRecord::kCounter:
    case FaultRecord::kCounter64: return findIn(counters, id);
    case FaultRecord::kCounterData: return findIn(counterData, id);
    case FaultRecord::kValue: break;
  }
  return findIn(values, id);
}

const Item *Names::item(std::string_view name) const { return findName(items, name); }
const FaultNames *Names::fault(std::string_view name) const { return findName(faults, name); }

Names parseNames(std::string_view text, const std::string &path, const FileReader &read) {
  Loader loader(read);
  loader.load(text, std::filesystem::path(path).lexically_normal().string());
  return std::move(loader.names);
}

}  // namespace kepserver
