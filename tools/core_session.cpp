// The session's target on systems without COM: the core Main2 itself, with the session's objects
// as core objects.
#include "accessibility/accessible_tree.h"
#include "platform/failure.h"
#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"
#include "tools/session.h"
#include "tools/session_objects.h"
#include "tracing/call_by_name.h"

namespace tabforge::cli {
namespace {

VariantBool ToFlag(bool value) {
  return value ? kTrue : kFalse;
}

// Pictures answer their size by name, as automation pictures do.
SessionPicture PictureOf(const Ref<Object>& picture) {
  SessionPicture result;
  if (!picture)
    return result;
  result.present = true;
  try {
    result.widthHimetric = ToLong(CallByName(picture, u"Width", CallKind::kPropertyGet));
    result.heightHimetric = ToLong(CallByName(picture, u"Height", CallKind::kPropertyGet));
    result.sized = true;
  } catch (const Failure&) {
  }
  return result;
}

class CoreTarget final : public SessionTarget {
 public:
  CoreTarget(CallLog& log, const SessionOptions& options)
      : log_(log),
        signaller_(MakeRef<SessionSignaller>(log, options.iconDirectory, options.failingMacros)),
        ribbon_(MakeRef<SessionRibbon>(log)) {
    if (options.trace)
      platform_.host.SetCommandLine(u"tabforge /trace");
    if (options.errors) {
      auto state = std::make_shared<ErrorComponentState>();
      state->answers.assign(options.answers.begin(), options.answers.end());
      state->dumpDirectory = options.dumpDirectory;
      platform_.objects.Register(Utf16String(kErrorComponentProgId), [&log, state] {
        return Ref<Object>(MakeRef<SessionErrorComponent>(log, state));
      });
    }
    protector_.vbwInitializeProtector();
  }

  Main2& main2() { return main2_; }

  void Initialize(Utf16View productName) override {
    main2_.Initialize(signaller_, Utf16String(productName));
  }
  void Ribbon() override { main2_.ribbon(ribbon_); }
  Utf16String GetRibbonXML() override { return main2_.GetRibbonXML(); }
  Utf16String GetLabel(Utf16View id) override { return main2_.GetLabel(Utf16String(id)); }
  Utf16String GetScreentip(Utf16View id) override { return main2_.GetScreentip(Utf16String(id)); }
  bool GetEnabled(Utf16View id) override { return IsTrue(main2_.GetEnabled(Utf16String(id))); }
  bool GetPressed(Utf16View id) override { return IsTrue(main2_.GetPressed(Utf16String(id))); }
  SessionPicture GetImage(Utf16View id) override {
    return PictureOf(main2_.GetImage(Utf16String(id)));
  }
  SessionPicture LoadImage(Utf16View id) override {
    return PictureOf(main2_.LoadImage(Utf16String(id)));
  }
  void productNameChanged(Utf16View productName) override {
    main2_.productNameChanged(Utf16String(productName));
  }
  void RibbonCallback(Utf16View id, bool isOn) override {
    main2_.RibbonCallback(Utf16String(id), ToFlag(isOn));
  }
  void EnableToolbar(bool value) override { main2_.EnableToolbar(ToFlag(value)); }
  void EnableGotoQuickBookmark(bool value) override {
    main2_.EnableGotoQuickBookmark(ToFlag(value));
  }
  void UpdateLexoscopeIcon(bool value) override { main2_.UpdateLexoscopeIcon(ToFlag(value)); }

  // Builds the accessible tree of `path`, hands it over as the command bar, and logs every
  // element that was pressed.
  std::string ActivateTab(const std::string& path) override {
    return ActivateWithTreeFile(path, log_, [&](const Ref<AccessibleElement>& root) {
      main2_.activateMorvelinTab(Ref<Object>(root));
    });
  }

 private:
  CallLog& log_;
  PortablePlatform platform_;
  VbwProtector protector_{platform_.View()};
  Ref<Object> signaller_;
  Ref<Object> ribbon_;
  Main2 main2_{protector_};
};

}  // namespace

int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors,
                  const SessionOptions& options) {
  return ReplaySession(in, out, errors, options, nullptr);
}

int ReplaySession(std::istream& in, std::ostream& out, std::ostream& errors,
                  const SessionOptions& options, const std::function<void(Main2&)>& inspect) {
  CallLog log;
  CoreTarget target(log, options);
  const int status = ReplaySession(in, out, errors, target, log);
  if (status == 0 && inspect)
    inspect(target.main2());
  return status;
}

}  // namespace tabforge::cli
