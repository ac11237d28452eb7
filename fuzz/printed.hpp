// printed.hpp: what holds for all that is printed, whatever it is made of.
#pragma once

#include <algorithm>
#include <istream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "require.hpp"

using Lines = std::vector<std::string>;

inline Lines harmlessLines(std::istream &in) {
  Lines lines;
  for (std::string line; std::getline(in, line);) {
    const bool steers = std::any_of(line.begin(), line.end(), [](char c) { return (c >= 0 && c < 0x20) || c == 0x7F; });
    if (steers) require("a control is printed");
    for (const char *hidden : {"\xC2\xAD", "\xE3\x85\xA4", "\xEF\xB8\x8F", "\xF3\xA0\x81\x81"}) {
      require(line.find(hidden) == std::string::npos ? "" : "a character is printed that does not show");
    }
    lines.push_back(line);
  }
  return lines;
}

// The fields of a line, of which no quote is open at its end.
inline Lines fieldsOf(const std::string &line) {
  Lines fields(1);
  bool isQuoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"' && isQuoted && line[i + 1] == '"') {
      fields.back() += line[++i];
    } else if (line[i] == '"') {
      isQuoted = !isQuoted;
    } else if (line[i] == ',' && !isQuoted) {
      fields.emplace_back();
    } else {
      fields.back() += line[i];
    }
  }
  require(isQuoted ? "a quote in CSV stays open" : "");
  return fields;
}

// Every line has `count` fields, the kind and the value the sixth and the seventh, and texts at `texts`. None but a
// number begins as a formula does; raw they differ in nothing else.
inline void checkCsv(const Lines &lines, const Lines &raw, size_t count, const std::vector<size_t> &texts) {
  for (size_t i = 0; i < lines.size(); ++i) {
    const Lines fields = fieldsOf(lines[i]);
    Lines rawFields = fieldsOf(raw.at(i));
    require(fields.size() == count && rawFields.size() == count ? "" : "CSV has not its fields in every line");
    for (const size_t text : texts) {
      const bool isNumber = text == 6 && (fields[5] == "int" || fields[5] == "long");
      std::string &field = rawFields[text];
      if (!isNumber && field.find_first_of("=+-@") == 0) field.insert(0, "'");
    }
    require(fields == rawFields ? "" : "CSV is another when it is raw");
  }
}

// Names leave the rows of JSON and CSV as they are, but for what they add to them and between them.
inline void checkNamed(const Lines &json, const Lines &named, const Lines &csv, const Lines &namedCsv) {
  Lines rows, csvRows;
  for (const std::string &line : named) {
    nlohmann::json row = nlohmann::json::parse(line);
    if (row["row"] == "field" || row["row"] == "missing" || row["row"] == "result") continue;
    for (const std::string added : {"section_name", "key_name", "id_name", "unit", "number", "shown", "verdict"}) {
      row.erase(added);
      row.erase(added + "_hex");
    }
    if (row["row"] == "summary") row.erase("tests"), row.erase("failed");
    if (row["row"] == "value") row.erase("time");
    rows.push_back(row.dump());
  }
  require(rows.size() == json.size() ? "" : "names leave out rows of JSON");
  for (size_t i = 0; i < rows.size(); ++i) requireEqual(rows[i], nlohmann::json::parse(json[i]).dump());
  for (const std::string &line : namedCsv) {
    Lines fields = fieldsOf(line);
    if (fields[0] == "field" || fields[0] == "missing" || fields[0] == "result") continue;
    fields.resize(fieldsOf(csv[0]).size());
    require(csvRows.size() < csv.size() && fields == fieldsOf(csv[csvRows.size()]) ? "" : "names change CSV: " + line);
    csvRows.push_back(line);
  }
  require(csvRows.size() == csv.size() ? "" : "names leave out rows of CSV");
}
