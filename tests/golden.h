// Golden files under the source tree: texts the tests compare against, written anew on request.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

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

}  // namespace tabforge::testing
