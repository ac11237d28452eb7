// named_text.cpp: columns for the eye. Numbers end in one column, their units behind them; all else begins there.

#include "server/named_text.hpp"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "server/meant.hpp"

namespace kepserver {

namespace {

constexpr const char *kDim = "2";
constexpr const char *kGreen = "32";
constexpr const char *kRed = "31";

constexpr size_t kLeastRoom = 16;  // characters beside each other; with less, no line is broken

class Page {
 public:
  Page(Sink &out, const Style &style, const NamedRun &named) : out_(out), style_(style), named_(named) {}

  void putValues();
  void putVerdicts();
  void putHead();

 private:
  using Cells = Table<3>;

  // Calls take(cells, value, shown) for each line.
  template <class Take>
  void forEachLine(const Take &take) const;
  Cells::Row cellsOf(const NamedValue &value, const Shown *shown) const;

  void put(const char *colour, std::string_view text);
  void putVerdict(Verdict verdict);
  void putShown(const NamedValue &value, const Shown &shown, size_t numberWidth, size_t column);
  void putLines(std::string &text, size_t column);
  void putWrapped(std::string_view bytes, size_t column);

  Sink &out_;
  const Style &style_;
  const NamedRun &named_;
};

std::string numbered(std::string_view what, int32_t number) { return std::string(what) + " " + std::to_string(number); }

std::string sectionOf(const NamedValue &value, const Item *item) {
  if (!value.sectionName.empty()) return printable(value.sectionName);
  if (value.value->section == 0) return "";
  return numbered(item && !item->sections.label.empty() ? item->sections.label : "section", value.value->section);
}

// The size of the first so many characters, or of all.
size_t prefixOf(std::string_view text, size_t characters) {
  const auto isInside = [](char c) { return (static_cast<uint8_t>(c) & 0xC0) == 0x80; };
  size_t size = 0;
  for (; size < text.size() && characters > 0; --characters) {
    for (++size; size < text.size() && isInside(text[size]);) ++size;
  }
  return size;
}

Page::Cells::Row Page::cellsOf(const NamedValue &value, const Shown *shown) const {
  const Value &sent = *value.value;
  const std::string_view item = itemName(named_.run(), sent);
  const std::string name = shown ? shown->name() : "";
  return {item.empty() ? numbered("item", sent.item) : printable(item), sectionOf(value, named_.item(sent)),
          name.empty() ? numbered("key", sent.key) : name};
}

template <class Take>
void Page::forEachLine(const Take &take) const {
  named_.forEach([&](const NamedValue &value) {
    if (value.isTime || value.isSection) return;
    for (const Shown &shown : value.shown) take(cellsOf(value, &shown), value, shown);
  });
}

void Page::put(const char *colour, std::string_view text) {
  if (style_.colours) out_ << "\x1B[" << colour << 'm';
  out_ << text;
  if (style_.colours) out_ << "\x1B[0m";
}

void Page::putVerdict(Verdict verdict) {
  switch (verdict) {
    case Verdict::kNone: out_ << "    "; break;
    case Verdict::kPass: put(kGreen, "PASS"); break;
    case Verdict::kFail: put(kRed, "FAIL"); break;
  }
  out_ << "  ";
}

// Puts all of a text but what fits into its last line, which is left of it; breaks at blanks where it can.
void Page::putLines(std::string &text, size_t column) {
  std::string_view rest = text;
  for (size_t end; (end = prefixOf(rest, style_.width - column)) < rest.size();) {
    const size_t blank = rest.rfind(' ', end);
    if (blank != std::string_view::npos && blank > 0) end = blank;
    (out_ << rest.substr(0, end) << '\n').blanks(column);
    rest.remove_prefix(end + (rest[end] == ' ' ? 1 : 0));
  }
  text.erase(0, text.size() - rest.size());
}

// A text can have as much as a whole run, and four times as much when it is made printable: portion by portion.
void Page::putWrapped(std::string_view bytes, size_t column) {
  if (style_.width < column + kLeastRoom) return putPrintable(out_, bytes);
  std::string text;
  while (!bytes.empty()) {
    const size_t size = portionOf(bytes);
    text += printable(bytes.substr(0, size));
    bytes.remove_prefix(size);
    putLines(text, column);
  }
  out_ << text;
}

void Page::putShown(const NamedValue &value, const Shown &shown, size_t numberWidth, size_t column) {
  if (isNumber(shown)) {
    out_.blanks(numberWidth - widthOf(shown.text)) << shown.text;
    if (!shown.misfit && shown.meaning && !shown.meaning->unit.empty()) {
      out_ << ' ';
      put(kDim, shown.meaning->unit);
    }
  } else {
    if (!value.time.empty()) {
      put(kDim, value.time);
      out_ << "  ";
      column += value.time.size() + 2;
    }
    putWrapped(shown.text, column);
  }
  out_ << '\n';
}

void Page::putValues() {
  Cells table({false, false, false});
  size_t numberWidth = 0;
  forEachLine([&](const Cells::Row &cells, const NamedValue &, const Shown &shown) {
    table.widen(cells);
    if (isNumber(shown)) numberWidth = std::max(numberWidth, widthOf(shown.text));
  });
  const size_t verdictWidth = named_.run().selfTest ? 6 : 0;
  forEachLine([&](const Cells::Row &cells, const NamedValue &value, const Shown &shown) {
    if (verdictWidth > 0) putVerdict(shown.verdict);
    table.put(out_, cells);
    putShown(value, shown, numberWidth, verdictWidth + table.width());
  });
}

void Page::putVerdicts() {
  const Judgement judgement = judge(named_.names(), named_.run());
  Table<1> table({false});
  for (const MissingTest &test : judgement.missing) table.widen({printable(test.item)});
  for (const MissingTest &test : judgement.missing) {
    putVerdict(Verdict::kFail);
    table.put(out_, {printable(test.item)});
    out_ << test.name << " is missing\n";
  }
  for (const ItemResult &result : judgement.items) {
    putVerdict(result.tests.verdict());
    putPrintable(out_, result.item);
    out_ << '\n';
  }
  putVerdict(judgement.tests.verdict());
  out_ << judgement.tests.failed << " of " << judgement.tests.count << " tests failed, " << judgement.testedItems.failed
       << " of " << judgement.testedItems.count << " items\n";
}

void Page::putHead() {
  const Run &run = named_.run();
  if (!run.identity) return;
  if (!named_.names().title.empty()) out_ << named_.names().title << ", ";
  out_ << "identity " << hex(run.identity->bytes) << ", sequence " << run.identity->sequence << '\n';
}

}  // namespace

void putNamedText(Sink &out, const Style &style, const NamedRun &named) {
  Page page(out, style, named);
  page.putHead();
  page.putValues();
  if (named.run().selfTest) page.putVerdicts();
}

}  // namespace kepserver
