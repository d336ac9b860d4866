#pragma once

// The query for the plug-in's version when the desk starts.

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "server/host_process.h"

namespace desk {

/// Starts the plug-in in a process of its own and asks it for its version. To be used on the loop's thread only, and
/// destroyed after the process has exited.
class PluginCheck final : private HostProcess::Listener {
 public:
  /// `on_change` is called when the version or an error is known, and when the process has exited. Throws
  /// `std::system_error` if no process or pipe can be created.
  PluginCheck(boost::asio::io_context& loop, const std::vector<std::string>& host_command,
              std::function<void()> on_change);

  const std::string& version() const { return version_; }  ///< empty if not known
  const std::string& error() const { return error_; }      ///< empty if there is none
  bool exited() const { return exited_; }                  ///< the process has exited

  void End() { process_->End(); }

 private:
  void OnLine(std::string_view line) override;
  void OnLogLine(std::string_view line) override { last_line_ = line; }
  void OnEnd(int wait_status) override;

  const std::function<void()> on_change_;
  std::string version_;
  std::string error_;
  std::string last_line_;
  bool exited_ = false;
  std::shared_ptr<HostProcess> process_;
};

}  // namespace desk
