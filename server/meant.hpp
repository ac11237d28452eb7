// meant.hpp: what names add to a value, in the formats of all commands.
#pragma once

#include <string>
#include <string_view>

#include "server/present.hpp"
#include "server/print.hpp"

namespace kepserver {

// What stands beside a value's row in JSON and CSV; empty where nothing is known.
struct Meant {
  std::string name, unit;
  std::string number;  // in JSON's form
  std::string shown;
};

// `isInRow`: the row holds the text that is shown already.
Meant meantOf(const Shown &shown, bool isInRow);

JsonLine &putMeant(JsonLine &line, std::string_view nameMember, const Meant &meant);
CsvLine &putMeant(CsvLine &line, const Meant &meant);  // four columns

// In text numbers end in one column of their own, and their units stand behind it; all else begins where it does.
bool isNumber(const Shown &shown);

}  // namespace kepserver
