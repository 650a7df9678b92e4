// One self-contained HTML page that draws the add-in's ribbon as the word processor lays it out.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace tabforge {
class Main2;
struct PortableBitmap;
}  // namespace tabforge

namespace tabforge::cli {

struct PreviewOptions {
  std::string productName = "Morvelin";
  bool productNameGiven = false;
  std::string iconDirectory;
  std::string sessionFile;  // empty: a session of "Initialize NAME" only
};

// Replays the session, then writes the page for the state it left. Returns 0, or 2 after naming
// the problem on `errors`.
int WritePreview(std::ostream& page, std::ostream& errors, const PreviewOptions& options);

// The page for `main2` as it stands: one pass over its document, asking it the callbacks the
// document names.
std::string PreviewPage(Main2& main2);

// The picture as a PNG file, drawn opaque: the word processor draws the bitmap handle, whose
// pixels the loader has already laid on the ribbon's background.
std::vector<std::uint8_t> EncodePng(const PortableBitmap& bitmap);

}  // namespace tabforge::cli
