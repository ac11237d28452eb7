// query.hpp: the text of a board's query.
//
//   query    "=>config" | blank | section | blank | key | blank | default      one datagram, no terminator
//   answer   the value                                                         likewise
//
// A section and a key have at least one byte and no blank. The default is all that follows: it may hold blanks and be
// empty.

#ifndef KEP_CONFIG_QUERY_HPP
#define KEP_CONFIG_QUERY_HPP

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kepconfig {

constexpr size_t kMaxSize = 1000;  // of a query and of an answer, in bytes: a board has no room for more

struct Query {
  std::string section;
  std::string key;
  std::string defaultValue;
};

// Empty when the datagram is no query that a board could have sent.
std::optional<Query> parseQuery(std::string_view datagram);

std::string formatQuery(const Query &query);

// Whether the query's text says what the query says, and a board can send it.
bool canBeAsked(const Query &query);

// Makes bytes fit to be shown: printable ASCII stays as it is, a backslash becomes \\ and every other byte \xHH, so
// that nothing that comes from the network can steer a terminal and every byte can be told.
std::string escaped(std::string_view bytes);

}  // namespace kepconfig

#endif
