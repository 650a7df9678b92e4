// Module VBLanguageExtensions: small tests on values that the language itself leaves out.
#pragma once

#include "platform/variant.h"
#include "platform/variant_bool.h"
#include "tracing/vbw_protector.h"

namespace tabforge::vb_language_extensions {

// True exactly when the array has no storage at all, as an array that was never dimensioned. An
// array with storage and no elements is not empty by this test.
VariantBool isEmptyArrayByte(VbwProtector& protector, const ArrayRef& testArray);

// The module's section of a dump.
void vbwReportModuleVariables(VbwProtector& protector);

}  // namespace tabforge::vb_language_extensions
