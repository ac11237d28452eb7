// lua.hpp: names as a table of Lua, for the packet dissector.
#pragma once

#include <string>

#include "server/names.hpp"

namespace kepserver {

// Returns a Lua file that returns a table; its head tells the layout. `origin` is named there.
std::string luaNames(const Names &names, const std::string &origin);

}  // namespace kepserver
