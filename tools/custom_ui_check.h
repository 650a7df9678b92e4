// Tells whether the word processor would take a custom-UI document, and if not, every reason why.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tabforge::cli {

struct Finding {
  enum class Kind {
    kNotWellFormed,
    kNamespace,
    kElement,    // an element, or a missing one, where it stands
    kAttribute,  // an attribute that may not stand on its element, or a missing required one
    kValue,      // a value outside its type
    kRepeatedId,
    // Attributes that may each stand but not together. The word processor refuses them, but no
    // schema of the document language can say so.
    kExclusive,
  };
  int line = 0;
  int column = 0;
  Kind kind = Kind::kElement;
  std::string message;  // names the element, the attribute and the rule
};

// Every finding, in document order; empty when the word processor would take the document.
std::vector<Finding> CheckCustomUi(std::string_view document);

// "LINE:COLUMN: message"
std::string FormatFinding(const Finding& finding);

}  // namespace tabforge::cli
