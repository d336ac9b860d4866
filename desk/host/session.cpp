#include "host/session.h"

#include <algorithm>
#include <array>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "base/line_reader.h"
#include "set/embedder.h"
#include "set/simulated_set.h"
#include "vconf_control.h"

namespace desk {
namespace {

constexpr char kForm[] = R"(a line must be an object with one of "send", "post", "set" and "settle")";

vconf::Status BadSetting(const std::string& path) {
  return BadValue(path + ": the value must be a 32-bit integer, true, false or a text");
}

vconf::Status CheckArgument(const Request& request) {
  if (request.kind == In::kRecord && !request.argument.is_boolean()) {
    return BadValue(R"("record" must be true or false)");
  }
  if (request.kind == In::kSettle && request.argument != true) {
    return BadValue(R"("settle" must be true)");
  }
  if (request.kind != In::kSet) {
    return {};
  }
  if (!request.argument.is_object() || request.argument.empty()) {
    return BadValue(R"("set" must be an object of paths and values)");
  }
  for (const auto& [path, value] : request.argument.items()) {
    if (!ToValue(value)) {
      return BadSetting(path);
    }
  }
  return {};
}

Json Line(Out kind, Json value) {
  Json line = Json::object();
  line[std::string(kOutNames[static_cast<std::size_t>(kind)])] = std::move(value);
  return line;
}

}  // namespace

vconf::Result<Request> ParseRequest(std::string_view line) {
  auto parsed = ParseJson(line);
  if (!parsed.ok()) {
    return parsed.status();
  }
  ParsedJson& json = *parsed;
  if (!json.is_object() || RawMembers(line).size() != 1) {
    return BadValue(kForm);
  }
  const std::string& name = json.begin().key();
  const auto* const kind = std::ranges::find(kInNames, name);
  if (kind == kInNames.end()) {
    return BadValue("unknown \"" + name + "\": " + kForm);
  }
  Request request{static_cast<In>(kind - kInNames.begin()), std::move(json.begin().value())};
  if (auto wrong = CheckArgument(request); !wrong.ok()) {
    return wrong;
  }
  return request;
}

bool ReadRequests(int input, const ShutdownSignal& shutdown,
                  const std::function<vconf::Status(std::string_view line, const Request& request)>& handle,
                  const std::function<void(const Json&)>& on_error) {
  LineReader reader(input, shutdown);
  bool all_done = true;
  std::string line;
  for (int number = 1;; ++number) {
    const auto result = reader.Next(line);
    if (result == LineReader::Result::kLine && line.find_first_not_of(" \t\r") == std::string::npos) {
      continue;
    }
    vconf::Status status;
    if (result == LineReader::Result::kLine) {
      const auto request = ParseRequest(line);
      status = request.ok() ? handle(line, *request) : request.status();
    } else if (result == LineReader::Result::kTooLong) {
      status = BadValue("the line is longer than " + std::to_string(LineReader::kMaxLine) + " bytes");
    } else if (reader.error() != 0) {
      status = {vconf::Code::kFailed, "the input cannot be read: " + std::generic_category().message(reader.error())};
    }
    if (!status.ok()) {
      all_done = false;
      on_error(Line(Out::kError, {{"line", number}, {"text", status.text()}}));
    }
    if (result == LineReader::Result::kEnd) {
      return all_done;
    }
  }
}

std::chrono::milliseconds Latency(const Request& request) {
  const bool is_message = request.kind == In::kSend || request.kind == In::kPost;
  const ParsedJson& message = request.argument;
  if (!is_message || !message.is_object() || !message.contains("command") || !message["command"].is_string()) {
    return {};
  }
  const auto latency = vconf::Get(kLatencyPrefix + message["command"].get<std::string>());
  const int* const milliseconds = latency.ok() ? std::get_if<int>(&*latency) : nullptr;
  return std::chrono::milliseconds(milliseconds != nullptr ? std::clamp(*milliseconds, 0, kMaxLatency) : 0);
}

Session::Session(Output output) : output_(std::move(output)) {}

vconf::Result<std::unique_ptr<Session>> Session::Start(const std::string& plugin, Output output) {
  std::unique_ptr<Session> session(new Session(std::move(output)));
  OfferEmbedder();
  pp::browser::SetRegisterMessageHandlerResult(vconf::TakeFault("RegisterMessageHandler", "").value_or(0));
  auto loaded = pp::browser::Plugin::Load(plugin);
  if (!loaded.ok()) {
    return loaded.status();
  }
  session->plugin_ = *std::move(loaded);
  session->page_ =
      session->plugin_->CreateInstance([&output = session->output_, ended = false](const pp::Var& message) mutable {
        if (ended) {
          return;  // the plug-in keeps its subscriptions until the instance is destroyed
        }
        ended = message.is_string() && message.AsString() == "Unregister";
        output(Line(Out::kMessage, ToJson(message)));
      });
  if (session->page_ == nullptr) {
    return vconf::Status(vconf::Code::kFailed, plugin + ": the plug-in created no instance");
  }
  return session;
}

Session::~Session() {
  if (page_ != nullptr) {
    page_->EndRegistration();
    page_->Destroy();
    page_.reset();
  }
}

vconf::Status Session::Handle(const Request& request) {
  switch (request.kind) {
    case In::kSend:
      output_(Line(Out::kReply, ToJson(page_->Send(ToVar(request.argument)))));
      break;
    case In::kPost:
      page_->Post(ToVar(request.argument));
      break;
    case In::kSet:
      for (const auto& [path, json] : request.argument.items()) {
        const auto value = ToValue(json);
        if (auto status = value ? vconf::Set(path, *value) : BadSetting(path); !status.ok()) {
          return status;
        }
      }
      break;
    case In::kSettle:
      Settle();
      output_(Line(Out::kSettled, true));
      break;
    case In::kRecord:
      return BadValue(R"("record" needs the option --report)");
  }
  return {};
}

void Session::Settle() {
  page_->Settle();
  vconf::Settle();
}

}  // namespace desk
