// page_files.hpp: the files of page/, which CMake puts into the program.
#pragma once

#include <string_view>
#include <vector>

namespace kepfleet {

struct PageFile {
  std::string_view path;  // "index.html", "vendor/uPlot.min.css"
  std::string_view bytes;
  std::string_view tag;  // other bytes have another
};

const std::vector<PageFile> &pageFiles();

}  // namespace kepfleet
