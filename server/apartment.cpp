#include "server/apartment.h"

#include <windows.h>

#include <new>
#include <utility>

#include "server/com_ptr.h"
#include "server/windows_platform.h"
#include "server/windows_recording.h"

namespace tabforge::com {

// A thread as long as it lives: its id, which the system hands to a later thread once it ends,
// together with the moment it started.
struct ThreadKey {
  DWORD id = 0;
  ULONGLONG started = 0;

  static ThreadKey Current() {
    FILETIME created{};
    FILETIME unused{};
    ThreadKey key{::GetCurrentThreadId(), 0};
    if (::GetThreadTimes(::GetCurrentThread(), &created, &unused, &unused, &unused))
      key.started = (ULONGLONG{created.dwHighDateTime} << 32) | created.dwLowDateTime;
    return key;
  }
  bool operator==(const ThreadKey&) const = default;
};

struct Apartment {
  explicit Apartment(ThreadKey owner)
      : thread(owner),
        recorder(StartRecording()),
        protector(recorder ? recorder->Wrap(platform.Services()) : platform.Services()) {
    protector.vbwInitializeProtector();
  }

  ThreadKey thread;
  long holds = 0;
  Apartment* next = nullptr;
  WindowsPlatform platform;
  // While the user asks for recordings, the apartment's session is recorded: the platform's
  // collaborators through it, and the host's calls by the objects.
  Ref<recording::Recorder> recorder;
  VbwProtector protector;
};

namespace {

// The live apartments, found by their thread. Apartments are few and are looked up only when an
// object is created, so a list under a lock is enough. The lock is never held while an apartment
// is built or torn down.
SRWLOCK g_lock = SRWLOCK_INIT;
Apartment* g_apartments = nullptr;
long g_moduleReferences = 0;

}  // namespace

struct ApartmentVisit::Entry {
  ThreadKey visitor;
  Apartment* home = nullptr;
  Entry* next = nullptr;
};

namespace {

// Calls from other threads now running in an apartment's objects, innermost first.
ApartmentVisit::Entry* g_visits = nullptr;

Apartment* FindLocked(const ThreadKey& thread) {
  for (Apartment* a = g_apartments; a != nullptr; a = a->next) {
    if (a->thread == thread)
      return a;
  }
  for (ApartmentVisit::Entry* v = g_visits; v != nullptr; v = v->next) {
    if (v->visitor == thread)
      return v->home;
  }
  return nullptr;
}

// Takes a hold on the thread's apartment, if it has one.
Apartment* HoldExisting(const ThreadKey& thread) {
  const ExclusiveLock lock(g_lock);
  Apartment* found = FindLocked(thread);
  if (found != nullptr)
    ++found->holds;
  return found;
}

void LetGo(Apartment* apartment) {
  {
    const ExclusiveLock lock(g_lock);
    if (--apartment->holds != 0)
      return;
    for (Apartment** link = &g_apartments; *link != nullptr; link = &(*link)->next) {
      if (*link == apartment) {
        *link = apartment->next;
        break;
      }
    }
  }
  // Torn down outside the lock: the apartment's last objects may run anything.
  delete apartment;
}

}  // namespace

ApartmentHold::ApartmentHold(ApartmentHold&& other) noexcept
    : apartment_(std::exchange(other.apartment_, nullptr)) {}

ApartmentHold& ApartmentHold::operator=(ApartmentHold&& other) noexcept {
  if (this != &other) {
    if (apartment_ != nullptr)
      LetGo(apartment_);
    apartment_ = std::exchange(other.apartment_, nullptr);
  }
  return *this;
}

ApartmentHold::~ApartmentHold() {
  if (apartment_ != nullptr)
    LetGo(apartment_);
}

ApartmentHold ApartmentHold::Enter() {
  const ThreadKey thread = ThreadKey::Current();
  if (Apartment* existing = HoldExisting(thread))
    return ApartmentHold(existing);
  // Only this thread builds its own apartment, so nobody can add it meanwhile. The start-up
  // routine runs outside the lock: it reads the settings store and may reach the error component.
  auto* built = new Apartment(thread);
  built->holds = 1;
  {
    const ExclusiveLock lock(g_lock);
    built->next = g_apartments;
    g_apartments = built;
  }
  return ApartmentHold(built);
}

ApartmentHold ApartmentHold::Current() {
  return ApartmentHold(HoldExisting(ThreadKey::Current()));
}

recording::Recorder* ApartmentHold::Recorder() const {
  return apartment_->recorder.get();
}

VbwProtector& ApartmentHold::Protector() const {
  return apartment_->protector;
}

ApartmentVisit::ApartmentVisit(const ApartmentHold& home) noexcept {
  Apartment* apartment = home.apartment_;
  if (apartment == nullptr || apartment->thread.id == ::GetCurrentThreadId())
    return;
  // The visit holds nothing of its own: the object called holds its apartment for the call.
  entry_ = new (std::nothrow) Entry{ThreadKey::Current(), apartment, nullptr};
  if (entry_ == nullptr)
    return;
  const ExclusiveLock lock(g_lock);
  entry_->next = g_visits;
  g_visits = entry_;
}

ApartmentVisit::~ApartmentVisit() {
  if (entry_ == nullptr)
    return;
  {
    const ExclusiveLock lock(g_lock);
    for (Entry** link = &g_visits; *link != nullptr; link = &(*link)->next) {
      if (*link == entry_) {
        *link = entry_->next;
        break;
      }
    }
  }
  delete entry_;
}

void ModuleAddRef() {
  ::InterlockedIncrement(&g_moduleReferences);
}
bool ReleaseIfHeld(long& count) {
  for (LONG held = count; held > 0; held = count) {
    if (::InterlockedCompareExchange(&count, held - 1, held) == held)
      return true;
  }
  return false;
}

void ModuleRelease() {
  ReleaseIfHeld(g_moduleReferences);
}
bool ModuleInUse() {
  return ::InterlockedCompareExchange(&g_moduleReferences, 0, 0) != 0;
}

}  // namespace tabforge::com
