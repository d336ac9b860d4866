#include "set/faults.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "prefdeck_control.h"
#include "set/simulated_set.h"
#include "system_info_control.h"

namespace desk {
namespace {

constexpr char kFaultForm[] =
    R"(a fault is {"call": text, "path": text, "answer": integer, "times": 0 or more}; "path" and "times" are optional)";
constexpr std::string_view kAny = "any";
constexpr std::string_view kNotZero = "any but 0";
constexpr std::string_view kNegative = "any below 0";

}  // namespace

std::span<const FaultCall> FaultCalls() {
  constexpr std::string_view kKey = "a key's path";
  // As documented at the declarations of the calls.
  static constexpr auto calls = std::to_array<FaultCall>({
      {"vconf_get_int", kNotZero, kKey, ""},
      {"vconf_get_bool", kNotZero, kKey, ""},
      {"vconf_set_int", kNotZero, kKey, ""},
      {"vconf_set_bool", kNotZero, kKey, ""},
      {"vconf_sync_key", kNegative, kKey, ""},
      {"vconf_notify_key_changed", kNegative, kKey, ""},
      {"vconf_ignore_key_changed", kNegative, kKey, ""},
      {"system_info_get_custom_bool", kNegative, "a feature's name", system_info::kFeaturePrefix},
      {"GetItemDataList", kAny, "a list's name", prefdeck::kListPrefix},
      {"CreateVideoControl", kNegative, "", ""},
      {"GetPictureSize", kNegative, "", ""},
      {"RegisterMessageHandler", kNotZero, "", ""},
      {"GenericSyncCall", kNotZero, "an operation's name", kReplyPrefix},
  });
  return calls;
}

vconf::Result<const FaultCall*> FindFaultCall(std::string_view name) {
  const auto calls = FaultCalls();
  const auto found = std::ranges::find(calls, name, &FaultCall::name);
  if (found != calls.end()) {
    return &*found;
  }
  std::string error = "there is no call \"" + std::string(name) + "\"; the calls that can fail are:";
  for (const FaultCall& call : calls) {
    error.append(" ").append(call.name);
  }
  return vconf::Status(vconf::Code::kBadName, std::move(error));
}

vconf::Status CheckFault(const vconf::Fault& fault) {
  const auto found = FindFaultCall(fault.call);
  if (!found.ok()) {
    return found.status();
  }
  constexpr std::size_t kMaxPath = 511;  // the store's
  if (fault.path.empty() || fault.path.size() > kMaxPath || fault.path.find('\0') != std::string::npos) {
    return {vconf::Code::kBadName, "the path of a fault has 1 to 511 bytes, none of them 0"};
  }
  const FaultCall& call = **found;
  if ((call.failures == kNotZero && fault.answer == 0) || (call.failures == kNegative && fault.answer >= 0)) {
    return BadValue(std::to_string(fault.answer) + " is not a failure of " + fault.call +
                    "; its failures are: " + std::string(call.failures));
  }
  return {};
}

vconf::Status AddFault(const vconf::Fault& fault) {
  auto status = CheckFault(fault);
  return status.ok() ? vconf::SetFault(fault) : status;
}

vconf::Result<vconf::Fault> FaultFromJson(const ParsedJson& json) {
  if (!json.is_object() || !json.contains("call") || !json.contains("answer")) {
    return BadValue(kFaultForm);
  }
  vconf::Fault fault{.call = {}, .path = kEveryPath, .answer = 0, .times = 0};
  for (const auto& [name, member] : json.items()) {
    const auto value = ToValue(member);
    const auto* text = value ? std::get_if<std::string>(&*value) : nullptr;
    const auto* number = value ? std::get_if<int>(&*value) : nullptr;
    if (name == "call" && text != nullptr) {
      fault.call = *text;
    } else if (name == "path" && text != nullptr) {
      fault.path = *text;
    } else if (name == "answer" && number != nullptr) {
      fault.answer = *number;
    } else if (name == "times" && number != nullptr && *number >= 0) {
      fault.times = static_cast<unsigned>(*number);
    } else {
      return BadValue("\"" + name + "\" is unknown or has a wrong value; " + kFaultForm);
    }
  }
  return fault;
}

}  // namespace desk

void vconf::to_json(desk::Json& json, const Fault& fault) {
  json = {{"call", fault.call}, {"path", fault.path}, {"answer", fault.answer}, {"times", fault.times}};
}
