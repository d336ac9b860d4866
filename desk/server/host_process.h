#pragma once

// A child process that exchanges lines with the desk through pipes.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

namespace desk {

/// A child process with pipes to its input, output and log (stderr). The kernel kills it when the thread that started
/// it ends, so this must be the main thread, which runs the loop. To be used on that thread only.
class HostProcess : public std::enable_shared_from_this<HostProcess> {
 public:
  class Listener {
   public:
    virtual void OnLine(std::string_view line) = 0;
    virtual void OnLogLine(std::string_view line) = 0;
    /// `HasRoom` was false and is true again.
    virtual void OnRoom() {}
    /// The last call: the child has ended, with the status of `waitpid`.
    virtual void OnEnd(int wait_status) = 0;

   protected:
    ~Listener() = default;
  };

  static constexpr int kDescriptors = 4;                       ///< open in this process for each child
  static constexpr std::size_t kMaxQueue = 8UL * 1024 * 1024;  ///< bytes that are queued for a child that does not read

  /// Runs `command`, whose first part is the program's path. A program that cannot be run ends with status 127 and a
  /// line in its log. `listener` must live until `OnEnd`, which is called unless the loop is destroyed before. Throws
  /// `std::system_error` if no process or pipe can be created.
  static std::shared_ptr<HostProcess> Start(boost::asio::io_context& loop, const std::vector<std::string>& command,
                                            Listener& listener);

  ~HostProcess();
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  /// False if more than `kMaxQueue` bytes are queued. Always true for a child that is ending.
  bool HasRoom() const { return ending_ || queue_.size() + writing_.size() <= kMaxQueue; }

  /// Queues one line, without its newline. Dropped if the child is ending.
  void Write(std::string_view line);

  /// Closes the child's input after the queued lines, which makes it exit, and kills it after two seconds if it has
  /// not.
  void End();

  void Kill();

  pid_t pid() const { return pid_; }

 private:
  using Descriptor = boost::asio::posix::basic_stream_descriptor<boost::asio::io_context::executor_type>;

  // A pipe from the child.
  struct Output {
    Descriptor pipe;
    void (Listener::*on_line)(std::string_view);
    std::string rest;  // the start of a line whose end was not read yet
  };

  HostProcess(boost::asio::io_context& loop, Listener& listener);

  void Run(const std::vector<std::string>& command);
  void AwaitOutput(Output& output);
  bool ReadOnce(Output& output);
  void Drain(Output& output);
  void WriteQueued();
  void AwaitEnd();

  Listener* listener_;  // null once the child has ended
  Descriptor input_;
  Output output_;
  Output log_;
  Descriptor child_;  // the pidfd, readable once the child has ended
  boost::asio::steady_timer kill_timer_;
  pid_t pid_ = -1;
  std::string queue_;    // lines to be written next
  std::string writing_;  // lines being written
  bool ending_ = false;
};

}  // namespace desk
