#pragma once

// A child process that speaks in lines, on the loop.

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

/// A child process with pipes to its input, output and log (stderr). It dies with this process, in whatever way that
/// ends. The loop's thread alone, which must be one that lives as long as the process.
class HostProcess : public std::enable_shared_from_this<HostProcess> {
 public:
  class Listener {
   public:
    virtual void OnLine(std::string_view line) = 0;
    virtual void OnLogLine(std::string_view line) = 0;
    /// There is room for lines again, after `HasRoom` has said no.
    virtual void OnRoom() = 0;
    /// The last call. The child is gone; `wait_status` is as `waitpid` gives it.
    virtual void OnEnd(int wait_status) = 0;

   protected:
    ~Listener() = default;
  };

  static constexpr int kDescriptors = 4;                       ///< what one takes of this process
  static constexpr std::size_t kMaxQueue = 8UL * 1024 * 1024;  ///< bytes that a child may leave unread

  /// Runs `command`, whose first part is the program's path. A program that cannot be run counts as one that ended with
  /// status 127, and its log says why. `listener` must live until `OnEnd`, which comes in any case. Throws
  /// `std::system_error` when there is no room for a process or its pipes.
  static std::shared_ptr<HostProcess> Start(boost::asio::io_context& loop, const std::vector<std::string>& command,
                                            Listener& listener);

  ~HostProcess();
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  /// False when the child has left so much unread that no more is taken. One that is ending has room for everything.
  bool HasRoom() const { return ending_ || queue_.size() + writing_.size() <= kMaxQueue; }

  /// Queues one line, given without its newline. A line for a child that is ending is dropped: `OnEnd` answers it.
  void Write(std::string_view line);

  /// Closes the child's input after what is queued, which asks it to end; one that has not after two seconds is killed.
  void End();

  void Kill();

  pid_t pid() const { return pid_; }

 private:
  using Descriptor = boost::asio::posix::basic_stream_descriptor<boost::asio::io_context::executor_type>;

  // A pipe from the child.
  struct Output {
    Descriptor pipe;
    void (Listener::*on_line)(std::string_view);
    std::string rest;  // a line that has not ended yet
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
  bool was_full_ = false;
  bool ending_ = false;
};

}  // namespace desk
