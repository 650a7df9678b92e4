// Probe procedures for the statement runner and the failure handler: branches, a loop, changes of
// mode, nesting, early exit, and locals of each kind for a dump.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "apartment.h"
#include "tracing/run.h"

namespace tabforge::testing {

using tracing::Body;
using tracing::DefineProcedure;
using tracing::LocalReport;
using tracing::ParameterText;
using tracing::Run;

constexpr auto kBranch = DefineProcedure(u"Probe.Branch", 100);
constexpr auto kLoop = DefineProcedure(u"Probe.Loop", 200);
constexpr auto kNest = DefineProcedure(u"Probe.Nest", 300);
constexpr auto kEarly = DefineProcedure(u"Probe.Early", 400);
constexpr auto kModes = DefineProcedure(u"Probe.Modes", 600);
constexpr auto kChildren = DefineProcedure(u"Probe.Children", 700);
constexpr auto kOther = DefineProcedure(u"Probe.Other", 800);

// A module of probe procedures whose bodies log what they run; its module section is the bare
// banner.
struct Probe {
  Apartment& apartment;
  std::string trail;

  tracing::Module Trace() { return tracing::Module(apartment.protector, *this); }
  void vbwReportModuleVariables() const {}

  // 1: a; 2: if (condition) { 3: b }; 4: c.
  void Branch(bool condition) {
    Run(Trace(), kBranch, tracing::NoParameters, tracing::NoLocals, [&](Body& body) {
      TF_BEGIN(body)
      TF_STEP(1) trail += "a";
      TF_STEP(2) if (condition) {
        TF_STEP(3) trail += "b";
      }
      TF_STEP(4) trail += "c";
      TF_END
    });
  }

  // 1: x; 2: for i in 0..1 { 3: i }; 4: y.
  void Loop() {
    int i = 0;
    Run(Trace(), kLoop, tracing::NoParameters, tracing::NoLocals, [&](Body& body) {
      TF_BEGIN(body)
      TF_STEP(1) trail += "x";
      TF_STEP(2) for (i = 0; i < 2; ++i) {
        TF_LAST_IN_LOOP(3) trail += std::to_string(i);
        TF_LOOP_END(3)
      }
      TF_STEP(4) trail += "y";
      TF_END
    });
  }

  // 1: a; 2: pass-over; 3: if (condition) { 4: b }; 5: exit on failure; 6: c; 7: d.
  void Modes(bool condition) {
    Run(Trace(), kModes, tracing::NoParameters, tracing::NoLocals, [&](Body& body) {
      TF_BEGIN(body)
      TF_STEP(1) trail += "a";
      TF_PASS_OVER(2)
      TF_STEP(3) if (condition) {
        TF_STEP(4) trail += "b";
      }
      TF_EXIT_ON_FAILURE(5)
      TF_STEP(6) trail += "c";
      TF_STEP(7) trail += "d";
      TF_END
    });
  }

  // Recurses `levels` deep; the innermost call records the depth it sees.
  void Nest(int levels, int& deepest) {
    Run(Trace(), kNest, tracing::NoParameters, tracing::NoLocals, [&](Body& body) {
      TF_BEGIN(body)
      TF_STEP(1) if (levels > 1) {
        TF_STEP(2) Nest(levels - 1, deepest);
      }
      TF_STEP(3) if (levels == 1) {
        TF_STEP(4) deepest = apartment.protector.Depth();
      }
      TF_END
    });
  }

  void Early() {
    Run(Trace(), kEarly, tracing::NoParameters, tracing::NoLocals, [&](Body& body) {
      TF_BEGIN(body)
      TF_STEP(1) trail += "1";
      TF_STEP(2) return;
      TF_STEP(3) trail += "3";
      TF_END
    });
  }

  // Shaped like the walker's child enumeration: 1 and 2 log themselves; locals of each kind.
  void Children() {
    std::int32_t NumChildren = 0;
    std::int32_t NumReturned = 0;
    std::vector<Variant> ChildrenArray;
    Ref<Object> Element;
    Run(
        Trace(), kChildren, tracing::NoParameters,
        [&](LocalReport& l) {
          l.Add(u"NumChildren", NumChildren);
          l.Add(u"NumReturned", NumReturned);
          l.Add(u"ChildrenArray", ChildrenArray);
          l.Add(u"Element", Element);
        },
        [&](Body& body) {
          TF_BEGIN(body)
          TF_STEP(1) trail += "1";
          TF_STEP(2) trail += "2";
          TF_END
        });
  }

  void Other() {
    Run(Trace(), kOther, tracing::NoParameters, tracing::NoLocals, [&](Body& body) {
      TF_BEGIN(body)
      TF_STEP(1) trail += "o";
      TF_END
    });
  }
};

// A test on an apartment of its own with a probe module in it.
class ProbeTest : public ::testing::Test {
 protected:
  Apartment apartment;
  Probe probe{apartment, {}};
  ComponentScript& script = *apartment.script;
};

}  // namespace tabforge::testing
