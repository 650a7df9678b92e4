#include "platform/flight_log.h"

#include <charconv>
#include <cstdio>

namespace tabforge::flight {
namespace {

bool NeedsQuotes(std::string_view value) {
  if (value.empty())
    return true;
  for (const char c : value) {
    const auto u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u == 0x7F || c == '"' || c == '\\' || c == '=')
      return true;
  }
  return false;
}

void AppendValue(std::string& line, std::string_view value) {
  if (!NeedsQuotes(value)) {
    line += value;
    return;
  }
  line += '"';
  for (const char c : value) {
    const auto u = static_cast<unsigned char>(c);
    switch (c) {
      case '"':
        line += "\\\"";
        break;
      case '\\':
        line += "\\\\";
        break;
      case '\n':
        line += "\\n";
        break;
      case '\r':
        line += "\\r";
        break;
      case '\t':
        line += "\\t";
        break;
      default:
        if (u < 0x20 || u == 0x7F) {
          char escaped[5];
          std::snprintf(escaped, sizeof escaped, "\\x%02X", u);
          line += escaped;
        } else {
          line += c;
        }
    }
  }
  line += '"';
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return -1;
}

// Reads one value at `at`, quoted or bare; false when a quoted one is not closed or an escape is
// not ours.
bool ReadValue(std::string_view line, std::size_t& at, std::string& value) {
  if (at >= line.size() || line[at] != '"') {
    const std::size_t end = line.find(' ', at);
    value.assign(line.substr(at, end - at));
    at = end == std::string_view::npos ? line.size() : end;
    return true;
  }
  for (++at; at < line.size(); ++at) {
    const char c = line[at];
    if (c == '"') {
      ++at;
      return true;
    }
    if (c != '\\') {
      value += c;
      continue;
    }
    if (++at == line.size())
      return false;
    switch (line[at]) {
      case 'n':
        value += '\n';
        break;
      case 'r':
        value += '\r';
        break;
      case 't':
        value += '\t';
        break;
      case '"':
      case '\\':
        value += line[at];
        break;
      case 'x': {
        if (at + 2 >= line.size())
          return false;
        const int high = HexDigit(line[at + 1]);
        const int low = HexDigit(line[at + 2]);
        if (high < 0 || low < 0)
          return false;
        value += static_cast<char>(high * 16 + low);
        at += 2;
        break;
      }
      default:
        return false;
    }
  }
  return false;
}

// The next blank-separated word at `at`.
std::string_view Word(std::string_view line, std::size_t& at) {
  const std::size_t end = std::min(line.find(' ', at), line.size());
  const std::string_view word = line.substr(at, end - at);
  at = end < line.size() ? end + 1 : end;
  return word;
}

bool ReadNumber(std::string_view text, std::uint32_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// Every event line of `text`, in order.
std::vector<Event> Events(std::string_view text) {
  std::vector<Event> events;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    if (!line.empty() && line.back() == '\r')
      line.remove_suffix(1);
    if (auto event = ParseLine(line))
      events.push_back(std::move(*event));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return events;
}

}  // namespace

std::string FormatLine(const Stamp& stamp, std::string_view event, std::span<const Field> fields) {
  using namespace std::chrono;
  const auto ms = floor<milliseconds>(stamp.time);
  const auto day = floor<days>(ms);
  const year_month_day date{day};
  const hh_mm_ss clock{ms - day};
  char head[96];
  std::snprintf(
      head, sizeof head, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ %lu %lu ",
      static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
      static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
      static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()),
      static_cast<int>(clock.subseconds().count()), static_cast<unsigned long>(stamp.process),
      static_cast<unsigned long>(stamp.thread));
  std::string line = head;
  line += event;
  for (const Field& field : fields) {
    line += ' ';
    line += field.key;
    line += '=';
    AppendValue(line, field.value);
  }
  return line;
}

std::optional<std::string> Event::Value(std::string_view key) const {
  for (const auto& [fieldKey, value] : fields) {
    if (fieldKey == key)
      return value;
  }
  return std::nullopt;
}

std::optional<Event> ParseLine(std::string_view line) {
  Event event;
  std::size_t at = 0;
  event.time = Word(line, at);
  if (event.time.size() != 24 || event.time.back() != 'Z' || event.time[10] != 'T')
    return std::nullopt;
  if (!ReadNumber(Word(line, at), event.process) || !ReadNumber(Word(line, at), event.thread))
    return std::nullopt;
  event.name = Word(line, at);
  if (event.name.empty())
    return std::nullopt;
  while (at < line.size()) {
    const std::size_t equals = line.find('=', at);
    if (equals == std::string_view::npos)
      return std::nullopt;
    std::string key(line.substr(at, equals - at));
    at = equals + 1;
    std::string value;
    if (!ReadValue(line, at, value))
      return std::nullopt;
    event.fields.emplace_back(std::move(key), std::move(value));
    if (at < line.size()) {
      if (line[at] != ' ')
        return std::nullopt;
      ++at;
    }
  }
  return event;
}

bool RotatingLog::Write(std::string_view line) noexcept {
  if (Broken())
    return false;
  try {
    std::string bytes;
    bytes.reserve(line.size() + 1);
    bytes += line;
    bytes += '\n';
    const std::optional<bool> quick =
        folder_.AppendWithin(bytes, limits_.maxBytes - limits_.maxBytes / 8);
    if (!quick) {
      broken_.store(true, std::memory_order_relaxed);
      return false;
    }
    if (*quick)
      return true;
    const std::optional<std::uintptr_t> held = folder_.Lock();
    if (!held) {
      broken_.store(true, std::memory_order_relaxed);
      return false;
    }
    const bool written = WriteLocked(bytes);
    folder_.Unlock(*held);
    if (!written)
      broken_.store(true, std::memory_order_relaxed);
    return written;
  } catch (...) {
    return false;
  }
}

bool RotatingLog::WriteLocked(std::string_view bytes) noexcept {
  const std::int64_t size = folder_.CurrentSize();
  if (size < 0)
    return false;
  const auto length = static_cast<std::int64_t>(bytes.size());
  // The size is read under the lock, so two processes never both rotate for the same line.
  if (size > 0 && size + length > limits_.maxBytes && !folder_.Rotate())
    return false;
  // A single line longer than the bound is not written at all.
  if (length > limits_.maxBytes)
    return true;
  return folder_.Append(bytes);
}

std::optional<LastStart> FindLastStart(std::string_view text) {
  const std::vector<Event> events = Events(text);
  std::size_t loaded = events.size();
  for (std::size_t i = events.size(); i-- > 0;) {
    if (events[i].name == "loaded") {
      loaded = i;
      break;
    }
  }
  if (loaded == events.size())
    return std::nullopt;
  LastStart start{events[loaded], {}};
  for (std::size_t i = loaded + 1; i < events.size(); ++i) {
    const Event& event = events[i];
    if (event.process != start.loaded.process)
      continue;
    if (event.name == "loaded")
      break;  // the same process id, a later process
    const auto ms = event.Value("ms");
    if (!ms)
      continue;
    StartStep step{event.name, -1};
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(ms->data(), ms->data() + ms->size(), value);
    if (error == std::errc() && end == ms->data() + ms->size())
      step.ms = value;
    start.steps.push_back(std::move(step));
  }
  return start;
}

std::vector<Event> LastFailures(std::string_view text, std::size_t count) {
  std::vector<Event> failures;
  for (Event& event : Events(text)) {
    if (event.name == "failure")
      failures.push_back(std::move(event));
  }
  if (failures.size() > count)
    failures.erase(failures.begin(), failures.end() - static_cast<std::ptrdiff_t>(count));
  return failures;
}

std::vector<Finding> JudgeLastStart(std::string_view text, std::int64_t slowStartMs) {
  std::vector<Finding> findings;
  const std::vector<Event> events = Events(text);
  const std::optional<LastStart> start = FindLastStart(text);
  if (!start) {
    findings.push_back({"loaded", "problem",
                        events.empty()
                            ? "the log is empty: the library was never loaded while the log was on"
                            : "the library was never loaded since " + events.front().time +
                                  ", when the log begins"});
    return findings;
  }
  const Event& loaded = start->loaded;
  findings.push_back({"loaded", "ok",
                      "last loaded " + loaded.time + " by " + loaded.Value("host").value_or("?") +
                          " (process " + std::to_string(loaded.process) + ")"});
  // The start as the host times it: the load, the connection and the ribbon's document.
  std::int64_t startMs = -1;
  bool document = false;
  for (const StartStep& step : start->steps) {
    if (step.name == "get-ribbon-xml")
      document = true;
    if (step.name == "main2-created" || step.name == "initialize" ||
        step.name == "get-ribbon-xml" || step.name == "ribbon-handed-over")
      startMs = std::max(startMs, step.ms);
  }
  if (document) {
    findings.push_back({"document", "ok", "the ribbon asked for its document"});
  } else {
    findings.push_back({"document", "problem",
                        "loaded " + loaded.time +
                            ", but the ribbon never asked for its document (GetRibbonXML): the "
                            "host did not connect the add-in, or it ended first"});
  }
  if (startMs > slowStartMs) {
    findings.push_back({"start-time", "problem",
                        "the start took " + std::to_string(startMs) + " ms, longer than the " +
                            std::to_string(slowStartMs) + " ms the word processor allows"});
  } else if (startMs >= 0) {
    findings.push_back({"start-time", "ok", "the start took " + std::to_string(startMs) + " ms"});
  }
  std::size_t failures = 0;
  const Event* last = nullptr;
  bool after = false;
  for (const Event& event : events) {
    // The last start's "loaded" is the log's last one.
    if (event.name == "loaded")
      after = event.time == loaded.time && event.process == loaded.process;
    else if (after && event.process == loaded.process && event.name == "failure") {
      ++failures;
      last = &event;
    }
  }
  if (last == nullptr) {
    findings.push_back({"failures", "ok", "no failure since the last load"});
  } else {
    findings.push_back({"failures", "warning",
                        std::to_string(failures) + " since the last load, the last " + last->time +
                            " in " + last->Value("procedure").value_or("?") + ": " +
                            last->Value("number").value_or("?") + " " +
                            last->Value("description").value_or("") + " (" +
                            last->Value("outcome").value_or("?") + ")"});
  }
  return findings;
}

}  // namespace tabforge::flight
