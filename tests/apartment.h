// One apartment for a test: portable platform, tracing module started up, a recording error
// component registered, and a fault injector attached.
#pragma once

#include <memory>

#include "doubles/recording_component.h"
#include "doubles/scripted_faults.h"
#include "platform/portable/portable_platform.h"
#include "tracing/vbw_protector.h"

namespace tabforge::testing {

struct Apartment {
  PortablePlatform platform;
  VbwProtector protector{platform.View()};
  std::shared_ptr<ComponentScript> script = InstallRecordingComponent(platform.objects);
  ScriptedFaults faults;

  Apartment() {
    protector.vbwInitializeProtector();
    protector.SetFaultInjector(&faults);
  }
};

}  // namespace tabforge::testing
