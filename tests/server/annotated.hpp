// annotated.hpp: the bytes that a page explains.
#pragma once

#include <algorithm>
#include <fstream>
#include <string>

// The bytes of a page's first block of annotated hex: those in front of two blanks on each of its lines.
inline std::string annotatedBytes(const std::string &path) {
  std::ifstream page(path);
  std::string line, bytes;
  while (std::getline(page, line) && line != "```hex") continue;
  while (std::getline(page, line) && line != "```") {
    const size_t end = std::min(line.find("  "), line.size());
    for (size_t i = 0; i < end; i += 3) bytes += static_cast<char>(std::stoi(line.substr(i, 2), nullptr, 16));
  }
  return bytes;
}
