#include "platform/portable/portable_platform.h"

#include <fstream>

#include "platform/failure.h"

namespace tabforge {
namespace {

Utf16String SettingKey(Utf16View appName, Utf16View section, Utf16View key) {
  Utf16String k(appName);
  k += u'/';
  k += section;
  k += u'/';
  k += key;
  return k;
}

}  // namespace

Utf16String PortableHost::GetSetting(Utf16View appName, Utf16View section, Utf16View key,
                                     Utf16View defaultValue) const {
  auto it = settings_.find(SettingKey(appName, section, key));
  return it == settings_.end() ? Utf16String(defaultValue) : it->second;
}

void PortableHost::SetSetting(Utf16View appName, Utf16View section, Utf16View key,
                              Utf16String value) {
  settings_[SettingKey(appName, section, key)] = std::move(value);
}

bool PortableHost::LoadSettingsFile(const std::string& path) {
  std::ifstream in(path);
  if (!in)
    return false;
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    if (line.empty() || line[0] == '#')
      continue;
    const auto equals = line.find('=');
    if (equals == std::string::npos)
      continue;
    settings_[FromUtf8(line.substr(0, equals))] = FromUtf8(line.substr(equals + 1));
  }
  return true;
}

Ref<Object> PortableObjectFactory::CreateObject(Utf16View progId) {
  auto it = creators_.find(progId);
  if (it == creators_.end())
    Raise(RunTimeError::kCannotCreateObject);
  Ref<Object> created = it->second();
  if (!created)
    Raise(RunTimeError::kCannotCreateObject);
  return created;
}

void PortableObjectFactory::Register(Utf16String progId, Creator creator) {
  creators_[std::move(progId)] = std::move(creator);
}

void PortableObjectFactory::Unregister(Utf16View progId) {
  if (auto it = creators_.find(progId); it != creators_.end())
    creators_.erase(it);
}

bool PortableMessageQueue::PumpOnce(std::chrono::steady_clock::time_point) {
  ++passes_;
  if (quit_)
    return false;
  if (everyPass_)
    everyPass_();
  return !quit_;
}

std::uintptr_t PortableSystemFacts::StackFloor() const {
  if (stackFloor_ != 0)
    return stackFloor_;
  // Asked once for each outside call; for the main thread the C library reads the process's maps
  // to tell, so the answer is kept for the thread that asked last.
  const pthread_t self = pthread_self();
  if (cachedValid_ && pthread_equal(cachedThread_, self))
    return cachedFloor_;
  pthread_attr_t attributes;
  std::uintptr_t floor = 0;
  if (pthread_getattr_np(self, &attributes) == 0) {
    void* address = nullptr;
    std::size_t size = 0;
    if (pthread_attr_getstack(&attributes, &address, &size) == 0)
      floor = reinterpret_cast<std::uintptr_t>(address);
    pthread_attr_destroy(&attributes);
  }
  cachedThread_ = self;
  cachedFloor_ = floor;
  cachedValid_ = true;
  return floor;
}

std::int32_t PortableAccessibilityApi::AccessibleChildren(const Ref<Object>& container,
                                                          std::int32_t firstChild,
                                                          std::int32_t count, Variant* children,
                                                          std::int32_t* obtained) {
  constexpr std::int32_t kFailed = static_cast<std::int32_t>(0x80004005);  // unspecified failure
  *obtained = 0;
  if (!container || count <= 0 || firstChild < 0)
    return kFailed;
  try {
    const Variant list = container->Invoke(kPortableChildrenMember, CallKind::kPropertyGet, {});
    const ArrayRef array = list.Value().Array();
    if (!array)
      return kFailed;
    const auto* items = std::get_if<std::vector<Variant>>(&array->elements);
    if (items == nullptr)
      return kFailed;
    for (std::size_t i = static_cast<std::size_t>(firstChild);
         i < items->size() && *obtained < count; ++i) {
      children[(*obtained)++] = (*items)[i];
    }
    return *obtained < count ? 1 : 0;  // 1: fewer children than asked for, as the platform says
  } catch (const Failure&) {
    return kFailed;
  }
}

}  // namespace tabforge
