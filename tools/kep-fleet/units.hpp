// units.hpp: the units that boards count in, and the base units of metrics that they come to.
#pragma once

#include <string>
#include <string_view>

#include "server/decimal.hpp"

namespace kepfleet {

struct BaseUnit {
  std::string name;  // as it stands in a metric's name: "bytes", "meters_per_second"
  kepserver::Decimal factor;
};

// The base unit of a unit as names files have it, such as "ms", "kB/s" or "°C". What the table lacks is its own base
// unit, under such a name as it can have.
BaseUnit baseUnitOf(std::string_view unit);

// Lower-case letters and digits of ASCII, with one _ for all that is between them; empty: there are none.
std::string plainWord(std::string_view text);

}  // namespace kepfleet
