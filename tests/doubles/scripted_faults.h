// A fault injector that makes chosen statements fail, and records every statement it sees.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/failure.h"
#include "tracing/procedure.h"

namespace tabforge::testing {

class ScriptedFaults final : public tracing::FaultInjector {
 public:
  // Statement `step` of `qualifiedName` fails on its next `times` runs with `number`.
  void FailAt(std::u16string qualifiedName, int step, int times = 1, std::int32_t number = 5) {
    faults_[{std::move(qualifiedName), step}] = {times, number};
  }

  void OnStatement(const tracing::ProcedureInfo& procedure, int step,
                   tracing::FailureMode mode) override {
    visits.emplace_back(procedure.qualifiedName, step);
    auto it = faults_.find({std::u16string(procedure.qualifiedName), step});
    if (it == faults_.end() || it->second.first == 0)
      return;
    --it->second.first;
    injectedModes.push_back(mode);
    Raise(it->second.second, u"injected");
  }

  // How often statement `step` of `qualifiedName` started.
  int Visits(std::u16string_view qualifiedName, int step) const {
    int count = 0;
    for (const auto& [name, s] : visits)
      count += (name == qualifiedName && s == step) ? 1 : 0;
    return count;
  }

  std::vector<std::pair<std::u16string_view, int>> visits;
  // The failure mode in force at each failure made, in order.
  std::vector<tracing::FailureMode> injectedModes;

 private:
  std::map<std::pair<std::u16string, int>, std::pair<int, std::int32_t>> faults_;
};

}  // namespace tabforge::testing
