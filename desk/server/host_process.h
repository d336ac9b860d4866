#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/lines.h"

namespace desk {

/// A child process that speaks in lines. It ends with this object, and with this process in whatever way that ends.
///
/// One thread of its own starts the child, carries its lines and waits for its end; it calls the listener, and it
/// alone.
class HostProcess {
 public:
  class Listener {
   public:
    virtual void OnLine(std::string_view line) = 0;
    virtual void OnLogLine(std::string_view line) = 0;
    /// The last call. `wait_status` is as `waitpid` gives it.
    virtual void OnEnd(int wait_status) = 0;

   protected:
    ~Listener() = default;
  };

  /// Runs `command`, whose first part is the program's path. A `kept_descriptor` stays open in the child under its
  /// number; the caller keeps it for the constructor's time. A program that cannot be run counts as one that ended
  /// with status 127, and its log says why. `listener` must outlive this object.
  HostProcess(std::vector<std::string> command, int kept_descriptor, Listener& listener);

  /// Ends the child as `End` does and returns when `OnEnd` has.
  ~HostProcess();

  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  /// False when the child has left so much unread that with `line` it would be more than 8 MiB. One that is ended or
  /// ending has room for everything. Any thread.
  bool HasRoom(std::string_view line);

  /// Queues one line, given without its newline; returns at once. It is for the caller to ask for room first. A line
  /// for a child that is ended or ending is dropped: `OnEnd` is what answers it. Any thread.
  void Write(std::string_view line);

  /// Closes the child's input after what is queued, which asks it to end; one that has not after two seconds is killed.
  /// Returns at once. Any thread.
  void End();

  /// Kills the child. Any thread.
  void Kill();

  pid_t pid() const { return pid_; }

 private:
  struct Pipes;

  Pipes Start(int kept_descriptor);
  void Run(Pipes pipes);
  bool WriteQueued(UniqueFd& input);

  const std::vector<std::string> command_;
  Listener& listener_;
  UniqueFd wake_;
  UniqueFd child_;  // a descriptor of the process itself, readable once it has ended
  pid_t pid_ = -1;

  std::mutex mutex_;
  std::string queue_;                                             // guarded by mutex_
  std::optional<std::chrono::steady_clock::time_point> kill_at_;  // guarded by mutex_; set when it is to end
  bool ended_ = false;                                            // guarded by mutex_

  std::thread thread_;
};

}  // namespace desk
