// Golden files under the source tree: texts the tests compare against, written anew on request.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tabforge::testing {

// The text of the file at `relative` under the source tree; empty when it cannot be read.
inline std::string ReadSource(const std::string& relative) {
  std::stringstream text;
  text << std::ifstream(std::string(TABFORGE_SOURCE_DIR) + "/" + relative).rdbuf();
  return text.str();
}

// Expects `text` to be the golden file at `relative`; with TABFORGE_UPDATE_GOLDEN set, writes it
// there instead, for the diff to be read.
inline void ExpectGolden(const std::string& relative, const std::string& text) {
  if (std::getenv("TABFORGE_UPDATE_GOLDEN")) {
    std::ofstream(std::string(TABFORGE_SOURCE_DIR) + "/" + relative) << text;
    return;
  }
  EXPECT_EQ(text, ReadSource(relative));
}

// A case of a file of cases: a line "## HEADER", then the lines up to the next such line.
struct Case {
  std::string header;
  std::string body;
};

// The cases of the file at `relative` under the source tree; lines starting with "# " are notes.
inline std::vector<Case> ReadCases(const std::string& relative) {
  std::istringstream file(ReadSource(relative));
  std::vector<Case> cases;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("## "))
      cases.push_back({line.substr(3), ""});
    else if (!cases.empty() && !line.starts_with("# "))
      cases.back().body += line + "\n";
  }
  EXPECT_FALSE(cases.empty()) << relative;
  return cases;
}

// The fields of `text` between the bars '|', without the blanks around them.
inline std::vector<std::string> Fields(const std::string& text) {
  std::vector<std::string> fields;
  std::istringstream in(text);
  for (std::string field; std::getline(in, field, '|');) {
    const auto first = std::min(field.find_first_not_of(' '), field.size());
    fields.push_back(field.substr(first, field.find_last_not_of(' ') + 1 - first));
  }
  return fields;
}

}  // namespace tabforge::testing
