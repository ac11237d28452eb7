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

constexpr size_t kLeastRoom = 16;  // columns; with less, no line is broken or cut
constexpr const char *kEllipsis = "\xE2\x80\xA6";

using Cells = Table<3>;

class Page {
 public:
  Page(Sink &out, const Style &style, const NamedRun &named, const NamedRun &gone)
      : out_(out), style_(style), named_(named), gone_(gone) {}

  void putValues();
  void putVerdicts();

 private:
  // Calls take(cells, value, shown, isGone) for each line.
  template <class Take>
  void forEachLine(const Take &take) const;

  void put(const char *colour, std::string_view text);
  void putVerdict(Verdict verdict);
  void putMark(Verdict verdict, bool isGone);
  void putShown(const NamedValue &value, const Shown &shown, size_t numberWidth, size_t column);
  void putLines(std::string &text, size_t room, size_t column);
  void putLong(std::string_view bytes, size_t column);

  Sink &out_;
  const Style &style_;
  const NamedRun &named_;
  const NamedRun &gone_;
};

std::string numbered(std::string_view what, int32_t number) { return std::string(what) + " " + std::to_string(number); }

std::string sectionOf(const NamedValue &value, const Item *item) {
  if (!value.sectionName.empty()) return printable(value.sectionName);
  if (value.value->section == 0) return "";
  return numbered(item && !item->sections.label.empty() ? item->sections.label : "section", value.value->section);
}

Cells::Row cellsOf(const NamedRun &named, const NamedValue &value, const Shown &shown) {
  const Value &sent = *value.value;
  const std::string_view item = itemName(named.run(), sent);
  const std::string name = shown.name();
  return {item.empty() ? numbered("item", sent.item) : printable(item), sectionOf(value, named.item(sent)),
          name.empty() ? numbered("key", sent.key) : name};
}

// A section's own name is seen with every other value; where those are left out it stands for itself.
template <class Take>
void Page::forEachLine(const Take &take) const {
  for (const NamedRun *named : {&named_, &gone_}) {
    named->forEach([&](const NamedValue &value) {
      if (value.isTime || (value.isSection && !named_.part().before)) return;
      for (const Shown &shown : value.shown) take(cellsOf(*named, value, shown), value, shown, named == &gone_);
    });
  }
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
void Page::putLines(std::string &text, size_t room, size_t column) {
  std::string_view rest = text;
  for (size_t end; (end = prefixOf(rest, room)) < rest.size();) {
    const size_t blank = rest.rfind(' ', end);
    if (blank != std::string_view::npos && blank > 0) end = blank;
    (out_ << rest.substr(0, end) << '\n').blanks(column);
    rest.remove_prefix(end + (rest[end] == ' ' ? 1 : 0));
  }
  text.erase(0, text.size() - rest.size());
}

// A text can have as much as a whole run, and four times as much when it is made printable: portion by portion.
void Page::putLong(std::string_view bytes, size_t column) {
  const size_t room = style_.width >= column + kLeastRoom ? style_.width - column : 0;
  if (room == 0) return putPrintable(out_, bytes);
  if (style_.isCut) {
    constexpr size_t kMostBytes = 4;  // of a character
    const std::string_view start = bytes.substr(0, kMostBytes * (room + 1));
    const std::string text = printable(start);
    if (start.size() == bytes.size() && widthOf(text) <= room) {
      out_ << text;
    } else {
      out_ << text.substr(0, prefixOf(text, room - 1)) << kEllipsis;
    }
    return;
  }
  std::string text;
  while (!bytes.empty()) {
    const size_t size = portionOf(bytes);
    text += printable(bytes.substr(0, size));
    bytes.remove_prefix(size);
    putLines(text, room, column);
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
    putLong(shown.text, column);
  }
  out_ << '\n';
}

void Page::putMark(Verdict verdict, bool isGone) {
  if (!isGone) return putVerdict(verdict);
  put(kDim, "GONE");
  out_ << "  ";
}

void Page::putValues() {
  Cells table({false, false, false});
  size_t numberWidth = 0;
  forEachLine([&](const Cells::Row &cells, const NamedValue &, const Shown &shown, bool) {
    table.widen(cells);
    if (isNumber(shown)) numberWidth = std::max(numberWidth, widthOf(shown.text));
  });
  const size_t markWidth = named_.run().selfTest || !named_.part().gone.empty() ? 6 : 0;
  forEachLine([&](const Cells::Row &cells, const NamedValue &value, const Shown &shown, bool isGone) {
    if (markWidth > 0) putMark(shown.verdict, isGone);
    table.put(out_, cells);
    putShown(value, shown, numberWidth, markWidth + table.width());
  });
}

void Page::putVerdicts() {
  const Judgement judgement = verdictsOf(named_);
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

}  // namespace

void putNamedText(Sink &out, const Style &style, const NamedRun &named, const NamedRun &gone) {
  Page page(out, style, named, gone);
  page.putValues();
  if (named.run().selfTest) page.putVerdicts();
}

}  // namespace kepserver
