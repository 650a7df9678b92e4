#include "doubles/recording_component.h"

#include <map>

#include "platform/failure.h"
#include "tracing/call_by_name.h"
#include "tracing/vbw_protector.h"

namespace tabforge::testing {

std::string LogText(const Variant& value) {
  std::string text = Describe(value.Value());
  static const std::map<char, std::string> escapes = {
      {'\0', "\\0"}, {'\1', "\\1"}, {'\r', "\\r"}, {'\n', "\\n"}};
  std::string escaped;
  for (char c : text) {
    const auto escape = escapes.find(c);
    escaped += escape != escapes.end() ? escape->second : std::string(1, c);
  }
  return escaped;
}

std::string ComponentScript::Members() const {
  std::string members;
  for (const auto& line : log)
    (members += members.empty() ? "" : " ") += line.substr(0, line.find('('));
  return members;
}

std::vector<std::string> ComponentScript::CallsTo(const std::string& member) const {
  std::vector<std::string> calls;
  for (const auto& line : log)
    if (line.rfind(member + "(", 0) == 0)
      calls.push_back(line);
  return calls;
}

Variant RecordingComponent::Invoke(Utf16View member, CallKind, std::span<Variant> arguments) {
  std::string line = ToUtf8(member) + "(";
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (i > 0)
      line += ", ";
    line += LogText(arguments[i]);
  }
  script_->log.push_back(line + ")");

  if (member == u"vbwInitializeProtector") {
    if (script_->failInitialize)
      Raise(-2147467259, u"initialisation failed");
    if (script_->onInitialize)
      script_->onInitialize(arguments);
    return {};
  }
  if (member == u"vbwErrorHandler") {
    if (script_->onFailure)
      script_->onFailure(arguments);
    if (script_->answers.empty())
      return script_->fallback;
    Variant answer = script_->answers.front();
    script_->answers.pop_front();
    return answer;
  }
  if (member == u"vbwOpenDumpFile" && script_->failOpenDump) {
    Raise(75, u"Path/File access error");
  }
  if (member == u"vbwReportVariable" && arguments.size() >= 2) {
    const Variant value = arguments[1].Value();
    if (value.type() == (VarType::VT_BSTR | VarType::VT_ARRAY) && value.Array()) {
      std::vector<std::string> texts;
      for (const Utf16String& text : std::get<std::vector<Utf16String>>(value.Array()->elements))
        texts.push_back(ToUtf8(text));
      script_->stringArrays.emplace_back(ToUtf8(ToBstr(arguments[0])), std::move(texts));
    }
  }
  if (member == u"vbwReportObject" && arguments.size() >= 2 && ToObject(arguments[1])) {
    const auto get = [&](Utf16View name) {
      return ToUtf8(ToBstr(CallByName(ToObject(arguments[1]), name, CallKind::kPropertyGet)));
    };
    if (ToBstr(arguments[0]) == u"Err")
      script_->objects.push_back("Err " + get(u"Number") + " " + get(u"Erl") + " " +
                                 get(u"source"));
    if (ToBstr(arguments[0]) == u"VB.App")
      script_->objects.push_back("VB.App " + get(u"Title") + " " + get(u"Major") + "." +
                                 get(u"Minor"));
  }
  if (member == u"vbwReportParameter")
    return Variant(u"<" + ToBstr(arguments[0]) + u">");
  return {};
}

std::shared_ptr<ComponentScript> InstallRecordingComponent(PortableObjectFactory& factory) {
  auto script = std::make_shared<ComponentScript>();
  factory.Register(Utf16String(kErrorComponentProgId), [script] {
    ++script->created;
    return Ref<Object>(MakeRef<RecordingComponent>(script));
  });
  return script;
}

}  // namespace tabforge::testing
