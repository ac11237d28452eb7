// ini.hpp: reads the values from a file's text.
//
//   ; a comment, as is a line that begins with #
//   [section]
//   key = value
//
// What stands around a section, a key or a value in blanks and tabs does not count. A value is all behind the first =,
// be it nothing, quotes and semicolons included. A section may stand several times and goes on then; a key may not.
// A byte order mark at the begin of the file does not count either.

#ifndef KEP_CONFIG_INI_HPP
#define KEP_CONFIG_INI_HPP

#include <cstddef>
#include <istream>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

namespace kepconfig {

struct Setting {
  std::string value;
  size_t line = 0;  // counted from 1
};

using Settings = std::map<std::pair<std::string, std::string>, Setting>;  // by section and key

class IniError : public std::runtime_error {
 public:
  IniError(size_t line, const std::string &reason) : std::runtime_error(reason), line_(line) {}
  size_t line() const { return line_; }

 private:
  size_t line_;
};

// Reads up to the stream's end. Throws IniError at the first line that breaks the form, repeats a key, or could never
// be asked for or answered. The caller looks at the stream's state.
Settings parseIni(std::istream &in);

}  // namespace kepconfig

#endif
