// samples.hpp: the series of one answer to Prometheus, taken board by board and written metric by metric, as its text
// format demands (https://prometheus.io/docs/instrumenting/exposition_formats/).
//
// A fleet's answer has half a million lines of which most is the same: what is kept of one is the number's digits, and
// where its labels are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kep-fleet/metric_names.hpp"

namespace kepfleet {

// Takes the next piece of the answer; false: nobody reads on.
using Pieces = std::function<bool(std::string_view piece)>;

// At most 64 bytes of a text, whole characters; what is not UTF-8, or a control, is replaced. Escaped, as it stands
// between the quotes.
std::string labelValue(std::string_view text);

class Samples {
 public:
  explicit Samples(const std::vector<Family> &families);

  // What is added from now on has these labels, such as `board="a",site="b"`.
  void begin(std::string labels);

  // With more labels, or none. Of two sources that have the same series the first counts. False: the source itself has
  // it twice, or these labels have too many.
  bool add(size_t family, std::string_view labels, std::string_view number, int source = 0);

  void write(const Pieces &take) const;

 private:
  uint32_t placeOf(std::string_view labels);

  const std::vector<Family> &families_;
  std::vector<std::string> common_;                  // labels, in the order of begin()
  std::unordered_map<std::string, uint32_t> known_;  // the other labels; their places in what follows
  std::vector<const std::string *> others_;
  std::unordered_map<uint64_t, int> there_;  // of the last begin(): family and place, and the source
  std::vector<std::string> samples_;         // by family
};

}  // namespace kepfleet
