#include "host/recording.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "base/files.h"
#include "base/standard_streams.h"
#include "base/terminal.h"
#include "set/catalog.h"
#include "set/simulated_set.h"

namespace desk {
namespace {

constexpr int kVersion = 1;

/// What a line of output holds: a "reply", a "delivery" or an "event"; empty for anything else, which is not compared.
std::string_view OutputKind(const ParsedJson& line) {
  const auto message = line.find("message");
  if (message == line.end()) {
    return line.contains("reply") ? "reply" : "";
  }
  return message->is_object() && message->contains("event") ? "event" : "delivery";
}

std::vector<std::string> Select(std::string_view kind, const std::vector<ParsedJson>& out) {
  std::vector<std::string> lines;
  for (const ParsedJson& line : out) {
    if (OutputKind(line) == kind) {
      lines.push_back(Printable(line.begin().value().dump()));
    }
  }
  return lines;
}

/// The plug-in's last message is missing from a recording that was saved during the session or is cut off.
void IgnoreUnrecordedEnd(const std::vector<ParsedJson>& recorded, std::vector<ParsedJson>& replayed) {
  const ParsedJson end = {{"message", "Unregister"}};
  if (std::ranges::find(recorded, end) == recorded.end()) {
    std::erase(replayed, end);
  }
}

vconf::Status BadRecording(std::string text) { return {vconf::Code::kFailed, std::move(text)}; }

vconf::Status ReadStart(const ParsedJson& json, Recording& recording) {
  if (json.value("recording", ParsedJson()) != kVersion || !json.contains("state") || !json.contains("faults")) {
    return BadRecording("is not the first line of a recording; use a file written by `mirado host --record`");
  }
  auto state = StateFromJson(json);
  if (!state.ok()) {
    return state.status();
  }
  recording.state = *std::move(state);
  // Recordings that begin with the session may lack this member.
  for (const ParsedJson& path : json.value("watches", ParsedJson::array())) {
    if (!path.is_string()) {
      return BadRecording(R"("watches" must be an array of paths)");
    }
    recording.watches.push_back(path);
  }
  return {};
}

vconf::Status ReadStep(const ParsedJson& json, Recording& recording) {
  const auto in = json.find("in");
  const auto out = json.find("out");
  if (json.size() != 1 || (in == json.end() && out == json.end())) {
    return BadRecording(R"(must be {"in": REQUEST} or {"out": LINE})");
  }
  if (out != json.end()) {
    recording.out.push_back(*out);
    return out->is_object() && out->size() == 1 ? vconf::Status()
                                                : BadRecording(R"("out" must be an object with one member)");
  }
  auto request = ParseRequest(in->dump());
  if (request.ok()) {
    recording.in.push_back(*request);
  }
  return request.status();
}

/// The output of replaying the recording's input on the open store.
vconf::Result<std::vector<ParsedJson>> Play(const Recording& recording, const std::string& plugin) {
  std::mutex mutex;
  std::vector<ParsedJson> out;
  const auto output = [&](const Json& line) {
    const std::lock_guard lock(mutex);
    out.push_back(ParsedJson::parse(ToText(line)));  // parsed like the lines of a recording
  };
  auto started = Session::Start(plugin, output);
  if (!started.ok()) {
    return started.status();
  }
  std::unique_ptr<Session> session = *std::move(started);
  for (const std::string& path : recording.watches) {
    if (const Setting* const setting = FindSetting(path)) {
      static_cast<void>(
          session->Handle({In::kSend, {{"command", setting->table->watch}, {"propertyKey", setting->key}}}));
    }
  }
  out.clear();  // the replies to these requests
  for (const Request& request : recording.in) {
    // A request that failed when it was recorded also fails here; its error is not part of the plug-in's output.
    static_cast<void>(session->Handle(request));
    session->Settle();
  }
  session.reset();
  return out;
}

}  // namespace

Recorder::Sink Recorder::ToFile(const std::string& file) {
  // Each line is flushed, so that the recording of a killed session is complete.
  return [stream = std::make_shared<std::ofstream>(file, std::ios::trunc)](std::string_view line) {
    *stream << line << std::endl;
    return stream->good();
  };
}

Recorder::Recorder(Sink sink, Output output) : sink_(std::move(sink)), output_(std::move(output)) {
  // Changes that arrive now are recorded after the first line.
  const std::lock_guard lock(mutex_);
  auto watch = vconf::WatchPrefix("", [this](const vconf::Change& change) { OnChange(change); });
  const auto state = DescribeState();
  for (const vconf::Status& status : {watch.status(), state.status()}) {
    if (!status.ok()) {
      PrintError("the recording does not contain the state of the store: " + status.text());
      break;
    }
  }
  if (watch.ok()) {
    watch_ = *std::move(watch);
  }
  Json start = {{"recording", kVersion}, {"state", Json::object()}, {"faults", Json::array()}};
  if (state.ok()) {
    start.update(*state);
  }
  start["watches"] = vconf::SubscribedPaths();
  failed_ = !sink_(ToText(start));
}

vconf::Status Recorder::Handle(Session& session, std::string_view line, const Request& request) {
  session.Settle();
  {
    const std::lock_guard lock(mutex_);
    handling_ = true;
    WriteLocked("in", line);
  }
  auto status = session.Handle(request);
  session.Settle();
  const std::lock_guard lock(mutex_);
  handling_ = false;
  for (std::string& text : held_back_) {
    output_(std::move(text));
  }
  held_back_.clear();
  return status;
}

void Recorder::Out(const Json& line) {
  std::string text = ToText(line);
  const std::lock_guard lock(mutex_);
  WriteLocked("out", text);
  if (handling_) {
    held_back_.push_back(std::move(text));
  } else {
    output_(std::move(text));
  }
}

bool Recorder::has_failed() {
  const std::lock_guard lock(mutex_);
  return failed_;
}

void Recorder::WriteLocked(const char* name, std::string_view text) {
  std::string line = R"({")";
  failed_ = !sink_(line.append(name).append(R"(": )").append(text).append("}")) || failed_;
}

// Changes during a request are made again when the request is replayed, so they are not recorded.
void Recorder::OnChange(const vconf::Change& change) {
  const std::lock_guard lock(mutex_);
  if (handling_ || !change.value) {
    return;
  }
  Json set = Json::object();
  set["set"][change.path] = ToJson(*change.value);
  WriteLocked("in", ToText(set));
}

vconf::Result<Recording> ReadRecording(const std::string& file) {
  std::error_code ignored;
  if (std::filesystem::is_directory(file, ignored)) {
    return BadRecording(file + ": is a folder; name the recordings in it");
  }
  std::ifstream stream(file);
  if (!stream) {
    return FileStatus(errno, file);
  }
  Recording recording;
  int number = 0;
  for (std::string line; std::getline(stream, line);) {
    ++number;
    auto parsed = ParseJson(line, kMaxJsonDepth + 1);
    vconf::Status status = parsed.status();
    if (status.ok() && !parsed->is_object()) {
      status = BadRecording("must be an object");
    } else if (status.ok()) {
      status = number == 1 ? ReadStart(*parsed, recording) : ReadStep(*parsed, recording);
    }
    if (!status.ok()) {
      return BadRecording(file + ": line " + std::to_string(number) + ": " + status.text());
    }
  }
  if (stream.bad()) {
    return FileStatus(errno, file);
  }
  if (number == 0) {
    return BadRecording(file + ": is empty, and so not a recording");
  }
  return recording;
}

std::vector<ParsedJson> MessagesIn(const Recording& recording) {
  std::vector<ParsedJson> messages;
  for (const Request& request : recording.in) {
    if (request.kind == In::kSend || request.kind == In::kPost) {
      messages.push_back(request.argument);
    }
  }
  return messages;
}

std::string Difference(const Recording& recording, const std::vector<ParsedJson>& out) {
  constexpr std::size_t kShown = 5;
  std::string text;
  for (const std::string kind : {"reply", "delivery", "event"}) {
    auto recorded = Select(kind, recording.out);
    auto replayed = Select(kind, out);
    const std::size_t count = std::max(recorded.size(), replayed.size());
    recorded.resize(count, "nothing");
    replayed.resize(count, "nothing");
    std::size_t different = 0;
    for (std::size_t at = 0; at < count; ++at) {
      if (recorded[at] != replayed[at] && ++different <= kShown) {
        text += "  " + kind + " " + std::to_string(at + 1) + "\n    recorded: " + recorded[at] +
                "\n    replayed: " + replayed[at] + "\n";
      }
    }
    if (different > kShown) {
      text += "  " + std::to_string(different - kShown) + " more differences in kind \"" + kind + "\" are not shown\n";
    }
  }
  return text;
}

vconf::Result<std::string> Replay(const Recording& recording, const std::string& plugin, const std::string& store) {
  auto status = vconf::OpenOrCreateStore(store, {});
  status = status.ok() ? RestoreState(recording.state) : status;
  auto out = status.ok() ? Play(recording, plugin) : status;
  vconf::CloseStore();
  if (!out.ok()) {
    return out.status();
  }
  IgnoreUnrecordedEnd(recording.out, *out);
  return Difference(recording, *out);
}

}  // namespace desk
