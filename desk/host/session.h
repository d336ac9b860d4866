#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/json.h"
#include "base/lines.h"
#include "browser_control.h"
#include "host/protocol.h"

namespace desk {

/// One line of a session's input, understood.
struct Request {
  using Kind = In;
  Kind kind;
  ParsedJson argument;
};

/// What `line` asks for, or `kBadValue` and what is wrong with it.
vconf::Result<Request> ParseRequest(std::string_view line);

/// Reads lines from `input` until it ends, or `end` is asked for, and hands each request to `handle`, which returns
/// what is wrong with it. What is wrong with a line is said in one `error` line that names it. Returns whether all were
/// good.
bool ReadRequests(int input, const ShutdownSignal& end,
                  const std::function<vconf::Status(std::string_view line, const Request& request)>& handle,
                  const std::function<void(const Json&)>& complain);

/// How long the set holds `request` back before the plug-in gets it.
std::chrono::milliseconds Latency(const Request& request);

/// A page's session with the plug-in in this process: JSON lines in and out.
///
/// Made, driven and destroyed on one thread, which is the plug-in's main thread. One session at a time.
class Session {
 public:
  /// Takes each line that the session has to say, on whatever thread it arises, perhaps several at once.
  using Say = std::function<void(const Json&)>;

  /// Loads the plug-in and embeds it in a page, or says which file it could not load and why.
  static vconf::Result<std::unique_ptr<Session>> Start(const std::string& plugin, Say say);

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Ends the registration, which is the last that the page hears, then destroys the instance and unloads the plug-in.
  ~Session();

  /// Does what `request` asks for and says the answer, where there is one. Fails when that was wrong.
  vconf::Status Handle(const Request& request);

  /// Returns when all messages posted so far have been handled and all changes made so far have been told.
  void Settle();

 private:
  explicit Session(Say say);

  Say say_;
  std::unique_ptr<pp::browser::Plugin> plugin_;
  std::shared_ptr<pp::browser::PageInstance> page_;
};

}  // namespace desk
