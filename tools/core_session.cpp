// The session's target on systems without COM: the core Main2 itself, with the session's objects
// as core objects.
#include <fstream>
#include <memory>
#include <stdexcept>

#include "accessibility/accessible_tree.h"
#include "platform/failure.h"
#include "platform/portable/portable_platform.h"
#include "platform/recording.h"
#include "ribbon/main2.h"
#include "tools/session.h"
#include "tools/session_objects.h"
#include "tracing/call_by_name.h"

namespace tabforge::cli {
namespace {

VariantBool ToFlag(bool value) {
  return value ? kTrue : kFalse;
}

using recording::HostArgument;
using recording::Recorder;

HostArgument TextArgument(Utf16View text) {
  HostArgument argument;
  argument.text = Utf16String(text);
  return argument;
}
HostArgument TruthArgument(bool truth) {
  HostArgument argument;
  argument.kind = HostArgument::kTruth;
  argument.truth = truth;
  return argument;
}
HostArgument ObjectArgument() {
  HostArgument argument;
  argument.kind = HostArgument::kObject;
  return argument;
}

// A recording into `path`, or none without one.
Ref<Recorder> OpenRecording(const std::string& path, std::unique_ptr<std::ofstream>& file) {
  if (path.empty())
    return nullptr;
  file = std::make_unique<std::ofstream>(path, std::ios::binary | std::ios::trunc);
  if (!*file)
    throw std::runtime_error("cannot write the recording '" + path + "'");
  std::ofstream* out = file.get();
  auto recorder = MakeRef<Recorder>(
      [out](std::string_view line) { return static_cast<bool>(*out << line << "\n"); },
      recording::Limits{});
  recorder->Comment(std::string(recording::kHeader.substr(2)) + ": a session of tabforge");
  return recorder;
}

class CoreTarget final : public SessionTarget {
 public:
  CoreTarget(CallLog& log, const SessionOptions& options)
      : log_(log),
        recorder_(OpenRecording(options.recordFile, recordFile_)),
        signaller_(
            Recorded(MakeRef<SessionSignaller>(log, options.iconDirectory, options.failingMacros),
                     recording::kSignallerRole)),
        ribbon_(Recorded(MakeRef<SessionRibbon>(log), recording::kRibbonRole)) {
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
    Host("Initialize", {ObjectArgument(), TextArgument(productName)});
    main2_.Initialize(signaller_, Utf16String(productName));
    Answer("ok");
  }
  void Ribbon() override {
    Host("ribbon", {ObjectArgument()});
    main2_.ribbon(ribbon_);
    Answer("ok");
  }
  Utf16String GetRibbonXML() override {
    Host("GetRibbonXML", {});
    return AnswerText(main2_.GetRibbonXML());
  }
  Utf16String GetLabel(Utf16View id) override {
    Host("GetLabel", {TextArgument(id)});
    return AnswerText(main2_.GetLabel(Utf16String(id)));
  }
  Utf16String GetScreentip(Utf16View id) override {
    Host("GetScreentip", {TextArgument(id)});
    return AnswerText(main2_.GetScreentip(Utf16String(id)));
  }
  bool GetEnabled(Utf16View id) override {
    Host("GetEnabled", {TextArgument(id)});
    return AnswerTruth(IsTrue(main2_.GetEnabled(Utf16String(id))));
  }
  bool GetPressed(Utf16View id) override {
    Host("GetPressed", {TextArgument(id)});
    return AnswerTruth(IsTrue(main2_.GetPressed(Utf16String(id))));
  }
  SessionPicture GetImage(Utf16View id) override {
    Host("GetImage", {TextArgument(id)});
    return AnswerPicture(PictureOf(main2_.GetImage(Utf16String(id))));
  }
  SessionPicture LoadImage(Utf16View id) override {
    Host("LoadImage", {TextArgument(id)});
    return AnswerPicture(PictureOf(main2_.LoadImage(Utf16String(id))));
  }
  void productNameChanged(Utf16View productName) override {
    Host("productNameChanged", {TextArgument(productName)});
    main2_.productNameChanged(Utf16String(productName));
    Answer("ok");
  }
  void RibbonCallback(Utf16View id, bool isOn) override {
    Host("RibbonCallback", {TextArgument(id), TruthArgument(isOn)});
    main2_.RibbonCallback(Utf16String(id), ToFlag(isOn));
    Answer("ok");
  }
  void EnableToolbar(bool value) override {
    Host("EnableToolbar", {TruthArgument(value)});
    main2_.EnableToolbar(ToFlag(value));
    Answer("ok");
  }
  void EnableGotoQuickBookmark(bool value) override {
    Host("EnableGotoQuickBookmark", {TruthArgument(value)});
    main2_.EnableGotoQuickBookmark(ToFlag(value));
    Answer("ok");
  }
  void UpdateLexoscopeIcon(bool value) override {
    Host("UpdateLexoscopeIcon", {TruthArgument(value)});
    main2_.UpdateLexoscopeIcon(ToFlag(value));
    Answer("ok");
  }

  // Builds the accessible tree of `path`, hands it over as the command bar, and logs every
  // element that was pressed.
  std::string ActivateTab(const std::string& path) override {
    return ActivateWithTreeFile(path, log_, [&](const Ref<AccessibleElement>& root) {
      Host("activateMorvelinTab", {ObjectArgument()});
      main2_.activateMorvelinTab(Recorded(Ref<Object>(root), recording::kBarRole));
      Answer("ok");
    });
  }

 private:
  Ref<Object> Recorded(const Ref<Object>& object, std::string_view role) {
    return recorder_ ? recorder_->Wrap(object, role) : object;
  }
  void Host(std::string_view member, const std::vector<HostArgument>& arguments) {
    if (recorder_)
      recorder_->HostCall(recording::CommandText(member, arguments));
  }
  void Answer(std::string_view result) {
    if (recorder_)
      recorder_->HostAnswer(result);
  }
  Utf16String AnswerText(Utf16String text) {
    Answer(Quote(text));
    return text;
  }
  bool AnswerTruth(bool truth) {
    Answer(truth ? "true" : "false");
    return truth;
  }
  SessionPicture AnswerPicture(const SessionPicture& picture) {
    Answer(PictureResult(picture));
    return picture;
  }

  CallLog& log_;
  PortablePlatform platform_;
  std::unique_ptr<std::ofstream> recordFile_;
  Ref<Recorder> recorder_;
  VbwProtector protector_{recorder_ ? recorder_->Wrap(platform_.View()) : platform_.View()};
  Ref<Object> signaller_;
  Ref<Object> ribbon_;
  Main2 main2_{protector_};
};

}  // namespace

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
