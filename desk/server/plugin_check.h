#pragma once

// The question for the plug-in's version that the desk asks when it begins.

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "server/host_process.h"
#include "server/page.h"

namespace desk {

/// Starts the plug-in once, on no store, so that the set's faults and latencies stay with those whom they are meant
/// for, and asks it for its version. The loop's thread alone; it outlives the process by running the loop.
class PluginCheck final : private HostProcess::Listener {
 public:
  /// `on_change` is called when there is a version or an error, and when the process has ended. Throws
  /// `std::system_error` as a page does.
  PluginCheck(boost::asio::io_context& loop, HostCommand command, std::function<void()> on_change);

  const std::string& version() const { return version_; }  ///< empty while there is none
  const std::string& error() const { return error_; }      ///< empty while there is none
  bool gone() const { return gone_; }                      ///< its process has ended before it answered
  bool ended() const { return ended_; }                    ///< its process has ended

  void End() { process_->End(); }

 private:
  void OnLine(std::string_view line) override;
  void OnLogLine(std::string_view line) override { last_line_ = line; }
  void OnRoom() override {}
  void OnEnd(int wait_status) override;

  const std::function<void()> on_change_;
  std::string version_;
  std::string error_;
  std::string last_line_;
  bool ended_ = false;
  bool gone_ = false;
  std::shared_ptr<HostProcess> process_;
};

}  // namespace desk
