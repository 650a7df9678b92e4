#include "server/apartment.h"

#include <memory>

#include "server/windows_platform.h"

namespace tabforge::com {

namespace {

struct Apartment {
  Apartment() : protector(platform.Services()) { protector.vbwInitializeProtector(); }

  WindowsPlatform platform;
  VbwProtector protector;
};

}  // namespace

VbwProtector& ApartmentProtector() {
  thread_local std::unique_ptr<Apartment> apartment;
  if (!apartment)
    apartment = std::make_unique<Apartment>();
  return apartment->protector;
}

}  // namespace tabforge::com
