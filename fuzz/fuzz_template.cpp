// Bytes into the doctor's template reader, as a .dotm from the user's disk: the answer is the
// template's content or a Damaged error, never a crash, a hang or a read outside the input. The
// same bytes also go straight to the layers below the package (the compound file and the
// compressed containers), which a mutated package seldom reaches intact.
#include <cstdint>
#include <string>

#include "doctor/template_reader.h"
#include "fuzz/input_bytes.h"

namespace tabforge::fuzzing {
namespace {

void RunOne(const std::uint8_t* data, std::size_t size) {
  const doctor::ByteSpan bytes(data, size);
  try {
    const doctor::TemplateContent content = doctor::ReadTemplate(bytes);
    for (const std::string& mismatch : doctor::CallbackMismatches(content))
      Expect(!mismatch.empty(), "an empty mismatch text");
    Expect(content.createsMain2 ? content.hasMacros : true, "creation without macros");
  } catch (const doctor::Damaged& damaged) {
    Expect(damaged.what()[0] != '\0', "an empty error text");
  }
  try {
    doctor::ReadMacroProject(bytes);
  } catch (const doctor::Damaged&) {
  }
  try {
    const doctor::Bytes out = doctor::Decompress(bytes, 1 << 20);
    Expect(out.size() <= (1 << 20) + 4096, "a container expanded past its cap");
  } catch (const doctor::Damaged&) {
  }
}

}  // namespace
}  // namespace tabforge::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tabforge::fuzzing::RunOne(data, size);
  return 0;
}
