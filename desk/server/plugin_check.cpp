#include "server/plugin_check.h"

#include <utility>

#include "host/protocol.h"

namespace desk {

PluginCheck::PluginCheck(boost::asio::io_context& loop, const std::vector<std::string>& host_command,
                         std::function<void()> on_change)
    : on_change_(std::move(on_change)) {
  process_ = HostProcess::Start(loop, host_command, *this);
  process_->Write(FormatLine(In::kSend, R"({"command": "getVersion"})"));
}

void PluginCheck::OnLine(std::string_view line) {
  const auto out = ReadOutLine(line);
  if (out && out->kind == Out::kLog) {
    last_line_ = ParsedJson::parse(out->value).at("text").get<std::string>();
  }
  if (!out || out->kind != Out::kReply) {
    return;
  }
  const ParsedJson reply = ParsedJson::parse(out->value);
  if (reply.is_object() && reply.contains("value") && reply["value"].is_string()) {
    version_ = reply["value"].get<std::string>();
  } else {
    error_ = "the plug-in's reply to getVersion holds no version";
  }
  process_->End();
  on_change_();
}

void PluginCheck::OnEnd(int /*wait_status*/) {
  exited_ = true;
  if (version_.empty() && error_.empty()) {
    error_ = last_line_.empty() ? "the plug-in's process has exited" : last_line_;
  }
  on_change_();
}

}  // namespace desk
