// One apartment for a test: portable platform, tracing module started up, a recording error
// component registered, and a fault injector attached; and the helpers that tests on it share.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "accessibility/accessible_tree.h"
#include "doubles/recording_component.h"
#include "doubles/scripted_faults.h"
#include "platform/failure.h"
#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"
#include "tracing/vbw_protector.h"

namespace tabforge::testing {

// The tree that `text` describes; a malformed one fails the test.
inline Ref<AccessibleElement> Tree(std::string_view text) {
  ParsedTree tree = ParseAccessibleTree(text);
  EXPECT_EQ(tree.error, "") << "line " << tree.errorLine;
  return tree.root;
}

// The number of the failure that `call` raises; 0 when it returns.
std::int32_t FailureNumber(auto&& call) {
  try {
    call();
  } catch (const Failure& failure) {
    return failure.number;
  }
  return 0;
}

struct Apartment {
  PortablePlatform platform;
  VbwProtector protector{platform.View()};
  std::shared_ptr<ComponentScript> script = InstallRecordingComponent(platform.objects);
  ScriptedFaults faults;

  Apartment() {
    protector.vbwInitializeProtector();
    protector.SetFaultInjector(&faults);
  }
  // Nothing reached the error component's handler, and no tracked procedure is left on the stack.
  void ExpectQuiet(const std::string& where = "") const {
    EXPECT_TRUE(script->CallsTo("vbwErrorHandler").empty()) << where;
    EXPECT_EQ(protector.Depth(), 0) << where;
  }
};

// The ribbon document of a Main2 initialised for `productName`, or never initialised.
inline std::string RibbonDocument(Utf16View productName, bool initialize = true) {
  Apartment apartment;
  Main2 main2(apartment.protector);
  if (initialize)
    main2.Initialize(nullptr, Utf16String(productName));
  return ToUtf8(main2.GetRibbonXML());
}

}  // namespace tabforge::testing
