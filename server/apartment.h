// The per-apartment state of the library (the Windows platform and the tracing module) and the
// count of live objects that DllCanUnloadNow answers from.
//
// An apartment's state is built, and its start-up routine run, when the first object of the
// library is created in that apartment, and it goes when the last object of the library that was
// created there goes. It is never tied to the thread's own life: nothing of ours runs at thread
// exit, where the loader lock is held and a call into COM, GDI+ or a library unload would freeze
// the host. A thread that ends while objects of the library are still alive leaves its state to
// those objects.
#pragma once

#include "platform/recording.h"
#include "tracing/vbw_protector.h"

namespace tabforge::com {

struct Apartment;

// A counted hold on one apartment's state; empty when there is none.
class ApartmentHold {
 public:
  ApartmentHold() = default;
  ApartmentHold(const ApartmentHold&) = delete;
  ApartmentHold& operator=(const ApartmentHold&) = delete;
  ApartmentHold(ApartmentHold&& other) noexcept;
  ApartmentHold& operator=(ApartmentHold&& other) noexcept;
  ~ApartmentHold();

  // The calling thread's apartment, built and started now if it has none. Throws std::bad_alloc.
  static ApartmentHold Enter();
  // The calling thread's apartment if it has one; an empty hold otherwise.
  static ApartmentHold Current();

  explicit operator bool() const { return apartment_ != nullptr; }
  VbwProtector& Protector() const;
  // The apartment's session recording, none when nothing is recorded.
  recording::Recorder* Recorder() const;

 private:
  friend class ApartmentVisit;
  explicit ApartmentHold(Apartment* apartment) : apartment_(apartment) {}
  Apartment* apartment_ = nullptr;
};

// A call from another thread into an object of an apartment, as a host that breaks the apartment
// rule makes: for its length, whatever the library creates on the calling thread belongs to the
// object's apartment, whose state it uses, and not to the caller's (which may have none). On the
// apartment's own thread it costs a comparison.
class ApartmentVisit {
 public:
  explicit ApartmentVisit(const ApartmentHold& home) noexcept;
  ~ApartmentVisit();
  ApartmentVisit(const ApartmentVisit&) = delete;
  ApartmentVisit& operator=(const ApartmentVisit&) = delete;

  // One visit in the list of visits now running.
  struct Entry;

 private:
  Entry* entry_ = nullptr;
};

// Every object that the library hands out, and every server lock, counts here from its creation
// to its destruction; while the count is not zero the library must stay loaded.
void ModuleAddRef();
void ModuleRelease();
bool ModuleInUse();

// Takes one from a count that never goes below zero, whoever releases what they never held;
// false when there was nothing to take.
bool ReleaseIfHeld(long& count);

// What each object of the library holds for its life: the module and, when it is created inside
// one, its apartment.
class ObjectHold {
 public:
  ObjectHold() : apartment_(ApartmentHold::Current()) { ModuleAddRef(); }
  ObjectHold(const ObjectHold&) = delete;
  ObjectHold& operator=(const ObjectHold&) = delete;
  ~ObjectHold() {
    apartment_ = ApartmentHold();
    ModuleRelease();
  }

  const ApartmentHold& Apartment() const { return apartment_; }
  // The tracing module of the object's apartment, none for an object made outside any.
  VbwProtector* Protector() const { return apartment_ ? &apartment_.Protector() : nullptr; }

 private:
  ApartmentHold apartment_;
};

}  // namespace tabforge::com
