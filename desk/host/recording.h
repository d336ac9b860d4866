#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "host/session.h"
#include "set/scenario.h"
#include "vconf_control.h"

/// A recorded session: the initial state of the store, then input and output, as JSON lines.
///
///   {"recording": 1, "state": {"db/menu/caption/caption": 0, …}, "faults": [{"call": …}, …], "watches": ["path", …]}
///   {"in": {"send": {"command": "getVersion"}}}
///   {"out": {"reply": {"code": 0, "value": "4.0", "errorName": "", "errorMessage": ""}}}
///
/// A change by another process between two requests is recorded as a request, {"in": {"set": …}}. Not recorded are:
/// invalid lines, which never reach the plug-in; faults that are set or cleared and keys that are removed during the
/// session; and changes by another process while the plug-in handles a request, which cannot be distinguished from
/// changes by the request.
namespace desk {

/// Writes a recording.
class Recorder {
 public:
  /// Receives a line of the recording, without its newline, and returns whether it was written; one call at a time.
  using Sink = std::function<bool(std::string_view)>;

  /// Receives a line of the session's output; one call at a time.
  using Output = std::function<void(std::string)>;

  /// Writes the first line, with the current state of the open store and the plug-in's subscriptions, and records
  /// changes from then on. The session's output is recorded and passed on to `output`.
  Recorder(Sink sink, Output output);

  /// A sink that writes to `file`.
  static Sink ToFile(const std::string& file);

  /// Handles `request`, which came in as `line`, so that a replay gives the same output: everything asked before is
  /// finished first, and output is passed on when the request is finished. A program that reacts to the output by
  /// changing the store therefore changes it after the request. If the plug-in crashes while it handles a request, the
  /// recording may have output that was not passed on. The session's thread.
  vconf::Status Handle(Session& session, std::string_view line, const Request& request);

  /// Takes a line of the session's output. Any thread.
  void Out(const Json& line);

  /// Whether a line could not be written, so that the recording is incomplete. Any thread.
  bool has_failed();

 private:
  void WriteLocked(const char* name, std::string_view text);
  void OnChange(const vconf::Change& change);

  const Sink sink_;
  const Output output_;
  std::mutex mutex_;  // guards the members below
  bool failed_ = false;
  bool handling_ = false;
  std::vector<std::string> held_back_;   // the output so far of the current request
  std::unique_ptr<vconf::Watch> watch_;  // last, so that it is destroyed first
};

/// The content of a recording.
struct Recording {
  SetState state;
  std::vector<std::string> watches;  ///< the paths to which the plug-in was subscribed when the recording began
  std::vector<Request> in;           ///< the requests
  std::vector<ParsedJson> out;       ///< the lines of output
};

/// Reads the file; a failure names the first invalid line.
vconf::Result<Recording> ReadRecording(const std::string& file);

/// The messages that the page sent, in their order.
std::vector<ParsedJson> MessagesIn(const Recording& recording);

/// The differences between the output of a session and the recorded output, as lines for a person; empty if equal.
///
/// Replies to waiting calls, deliveries and events are compared separately, each in their own order: deliveries come
/// from the plug-in's worker and events from the store's thread, so their order relative to each other is not fixed.
std::string Difference(const Recording& recording, const std::vector<ParsedJson>& out);

/// Replays a recording with `plugin` on a new store in the folder `store` and returns the differences of the output, as
/// above. Uses the process's only store and plug-in. The caller removes the folder.
vconf::Result<std::string> Replay(const Recording& recording, const std::string& plugin, const std::string& store);

}  // namespace desk
