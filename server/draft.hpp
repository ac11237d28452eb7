// draft.hpp: a first names file, from what a board sends.
#pragma once

#include <string>

#include "server/stream.hpp"

namespace kepserver {

// Returns a names file, to be filled in by hand, that has every key of a collection and of a self-test under a name of
// its own, with what came for it beside it. It is accepted as it stands, whatever the runs hold, unless it is longer
// than a names file may be. What it says of a value is no more than is certain: that it is a text, or a log.
std::string draftNames(const Run &collection, const Run &selfTest);

}  // namespace kepserver
