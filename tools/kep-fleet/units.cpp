// units.cpp: the table of units. What is no exact decimal of its base unit, as a degree Fahrenheit, stays as it is.

#include "kep-fleet/units.hpp"

#include <optional>

namespace kepfleet {

namespace {

using kepserver::Decimal;

struct Unit {
  std::string_view sign, base, factor;
};

// docs/metrics.md shows it.
constexpr Unit kUnits[] = {
    {"s", "seconds", "1"},
    {"ms", "seconds", "0.001"},
    {"µs", "seconds", "0.000001"},
    {"us", "seconds", "0.000001"},
    {"ns", "seconds", "0.000000001"},
    {"min", "seconds", "60"},
    {"h", "seconds", "3600"},
    {"d", "seconds", "86400"},
    {"B", "bytes", "1"},
    {"kB", "bytes", "1000"},
    {"MB", "bytes", "1000000"},
    {"GB", "bytes", "1000000000"},
    {"TB", "bytes", "1000000000000"},
    {"KiB", "bytes", "1024"},
    {"MiB", "bytes", "1048576"},
    {"GiB", "bytes", "1073741824"},
    {"TiB", "bytes", "1099511627776"},
    {"bit", "bits", "1"},
    {"kbit", "bits", "1000"},
    {"Mbit", "bits", "1000000"},
    {"Gbit", "bits", "1000000000"},
    {"%", "ratio", "0.01"},
    {"‰", "ratio", "0.001"},
    {"ppm", "ratio", "0.000001"},
    {"°C", "celsius", "1"},
    {"K", "kelvin", "1"},
    {"°F", "fahrenheit", "1"},
    {"V", "volts", "1"},
    {"mV", "volts", "0.001"},
    {"µV", "volts", "0.000001"},
    {"kV", "volts", "1000"},
    {"A", "amperes", "1"},
    {"mA", "amperes", "0.001"},
    {"µA", "amperes", "0.000001"},
    {"kA", "amperes", "1000"},
    {"Ah", "coulombs", "3600"},
    {"mAh", "coulombs", "3.6"},
    {"W", "watts", "1"},
    {"mW", "watts", "0.001"},
    {"kW", "watts", "1000"},
    {"MW", "watts", "1000000"},
    {"J", "joules", "1"},
    {"kJ", "joules", "1000"},
    {"Wh", "joules", "3600"},
    {"kWh", "joules", "3600000"},
    {"MWh", "joules", "3600000000"},
    {"Ω", "ohms", "1"},
    {"mΩ", "ohms", "0.001"},
    {"kΩ", "ohms", "1000"},
    {"MΩ", "ohms", "1000000"},
    {"Hz", "hertz", "1"},
    {"kHz", "hertz", "1000"},
    {"MHz", "hertz", "1000000"},
    {"GHz", "hertz", "1000000000"},
    {"m", "meters", "1"},
    {"µm", "meters", "0.000001"},
    {"mm", "meters", "0.001"},
    {"cm", "meters", "0.01"},
    {"km", "meters", "1000"},
    {"g", "grams", "1"},
    {"mg", "grams", "0.001"},
    {"kg", "grams", "1000"},
    {"t", "grams", "1000000"},
    {"l", "liters", "1"},
    {"L", "liters", "1"},
    {"ml", "liters", "0.001"},
    {"m³", "cubic_meters", "1"},
    {"N", "newtons", "1"},
    {"kN", "newtons", "1000"},
    {"Nm", "newton_meters", "1"},
    {"Pa", "pascals", "1"},
    {"hPa", "pascals", "100"},
    {"kPa", "pascals", "1000"},
    {"mbar", "pascals", "100"},
    {"bar", "pascals", "100000"},
    {"°", "degrees", "1"},
    {"rad", "radians", "1"},
    {"dB", "decibels", "1"},
    {"lx", "lux", "1"},
};

const Unit *find(std::string_view sign) {
  for (const Unit &unit : kUnits) {
    if (unit.sign == sign) return &unit;
  }
  return nullptr;
}

}  // namespace

BaseUnit baseUnitOf(std::string_view unit) {
  constexpr std::string_view kPerSecond = "/s";
  const bool isRate = unit.size() > kPerSecond.size() && unit.substr(unit.size() - kPerSecond.size()) == kPerSecond;
  const std::string_view sign = isRate ? unit.substr(0, unit.size() - kPerSecond.size()) : unit;
  const Unit *const known = find(sign);
  std::string name = known ? std::string(known->base) : plainWord(sign);
  if (isRate) name += name.empty() ? "per_second" : "_per_second";
  return {std::move(name), *Decimal::parse(known ? known->factor : "1")};
}

std::string plainWord(std::string_view text) {
  std::string word;
  bool isApart = false;  // from what stands in the word
  for (const char c : text) {
    const bool isUpper = c >= 'A' && c <= 'Z';
    if (!isUpper && !(c >= 'a' && c <= 'z') && !(c >= '0' && c <= '9')) {
      isApart = true;
      continue;
    }
    if (isApart && !word.empty()) word += '_';
    isApart = false;
    word += isUpper ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return word;
}

}  // namespace kepfleet
