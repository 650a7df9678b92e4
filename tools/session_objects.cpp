#include "tools/session_objects.h"

#include <fstream>
#include <iterator>

#include "platform/failure.h"

namespace tabforge::cli {
namespace {

bool ReadFile(const std::string& path, std::vector<std::uint8_t>& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return false;
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

}  // namespace

Variant SessionSignaller::Invoke(BstrView member, CallKind, std::span<Variant> arguments) {
  if (member == u"Run" && arguments.size() == 1) {
    log_.push_back("  signaller.Run " + ToUtf8(ToBstr(arguments[0])));
    return {};
  }
  if (member == u"getToolbarIconBits" && arguments.size() == 1) {
    const std::int16_t number = ToInteger(arguments[0]);
    log_.push_back("  signaller.getToolbarIconBits " + std::to_string(number));
    std::vector<std::uint8_t> bytes;
    for (const char* extension : {".png", ".gif"}) {
      if (ReadFile(iconDirectory_ + "/" + std::to_string(number) + extension, bytes)) {
        return Variant(VarType::VT_UI1, MakeArray(std::move(bytes)));
      }
    }
    return Variant(VarType::VT_UI1, nullptr);
  }
  Raise(RunTimeError::kMemberNotFound);
}

void SessionRibbon::Invalidate() {
  log_.push_back("  ribbon.Invalidate");
}

void SessionRibbon::InvalidateControl(const Bstr& controlId) {
  log_.push_back("  ribbon.InvalidateControl " + ToUtf8(controlId));
}

Variant SessionRibbon::Invoke(BstrView, CallKind, std::span<Variant>) {
  Raise(RunTimeError::kMemberNotFound);
}

}  // namespace tabforge::cli
