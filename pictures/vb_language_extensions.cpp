#include "pictures/vb_language_extensions.h"

#include "tracing/run.h"

namespace tabforge::vb_language_extensions {
namespace {

constexpr auto kIsEmptyArrayByte =
    tracing::DefineProcedure(u"VBLanguageExtensions.isEmptyArrayByte", 100);

// The library never runs inside a development environment, so the module's one variable is a
// constant.
constexpr VariantBool mInIDE = kFalse;

// The module as the tracing sees it: its report is the module procedure below.
struct ModuleReport {
  static void vbwReportModuleVariables(VbwProtector& protector) {
    vb_language_extensions::vbwReportModuleVariables(protector);
  }
};
constexpr ModuleReport kModule;

tracing::Module Trace(VbwProtector& protector) noexcept {
  return tracing::Module(protector, kModule);
}

}  // namespace

VariantBool isEmptyArrayByte(VbwProtector& protector, const ArrayRef& testArray) {
  VariantBool result = kFalse;
  tracing::Run(
      Trace(protector), kIsEmptyArrayByte,
      [&](tracing::ParameterText& p) { p.Add(u"testArray", Variant(VarType::VT_UI1, testArray)); },
      [&](tracing::LocalReport& l) { l.Add(u"testArray", Variant(VarType::VT_UI1, testArray)); },
      [&](tracing::Body& body) {
        TF_BEGIN(body)
        TF_STEP(1) result = testArray == nullptr ? kTrue : kFalse;
        TF_END
      });
  return result;
}

void vbwReportModuleVariables(VbwProtector& protector) {
  protector.vbwReportVariable(u"mInIDE", mInIDE, 0);
}

}  // namespace tabforge::vb_language_extensions
