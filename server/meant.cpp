// meant.cpp: names in rows of JSON and CSV.

#include "server/meant.hpp"

namespace kepserver {

Meant meantOf(const Shown &shown, bool isInRow) {
  Meant meant;
  meant.name = shown.name();
  if (!shown.meaning) return meant;
  if (!shown.misfit) meant.unit = shown.meaning->unit;
  // Without a digit it is infinite or no number, and for the eye only.
  if (shown.number.find_first_of("0123456789") != std::string::npos) meant.number = shown.number;
  if (!isInRow) meant.shown = shown.text;
  return meant;
}

JsonLine &putMeant(JsonLine &line, std::string_view nameMember, const Meant &meant) {
  if (!meant.name.empty()) line.text(nameMember, meant.name);
  if (!meant.unit.empty()) line.text("unit", meant.unit);
  if (!meant.number.empty()) line.number("number", std::string_view(meant.number));
  if (!meant.shown.empty()) line.text("shown", meant.shown);
  return line;
}

CsvLine &putMeant(CsvLine &line, const Meant &meant) {
  return line.text(meant.name).text(meant.unit).word(meant.number).text(meant.shown);
}

bool isNumber(const Shown &shown) {
  const bool isAsSent = !shown.meaning || shown.misfit;
  return !shown.number.empty() || (isAsSent && shown.sent.number);
}

}  // namespace kepserver
