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

/// A session on file: the store as it was at the start, then what went in and what came out, as JSON lines.
///
///   {"recording": 1, "state": {"db/menu/caption/caption": 0, …}, "faults": [{"call": …}, …], "watches": ["path", …]}
///   {"in": {"send": {"command": "getVersion"}}}
///   {"out": {"reply": {"code": 0, "value": "4.0", "errorName": "", "errorMessage": ""}}}
///
/// A value that somebody else gave a key between two requests stands there as a request of its own, {"in": {"set": …}}.
/// Left out are lines that were no requests, which never reached the plug-in, and what a player cannot repeat: faults
/// that came or went meanwhile, keys that somebody else removed, and what somebody else changed while the plug-in was
/// at a request, which cannot be told from what the request changed.
namespace desk {

/// Writes a recording.
class Recorder {
 public:
  /// Takes a line that comes out, as text; one at a time.
  using Hear = std::function<void(std::string)>;

  /// Takes a line of the recording, without its newline, and tells whether it could be kept; one at a time.
  using Keep = std::function<bool(std::string_view)>;

  /// Keeps the first line with what the open store holds now and what the plug-in is subscribed to, and notes changes
  /// from then on. What comes out goes to `hear` as well.
  Recorder(Keep keep, Hear hear);

  /// Keeps the lines in `file`.
  static Keep In(const std::string& file);

  /// Does `request`, which came in as `line`. A recording must say the same each time it is played, so everything is
  /// seen through before and after it, and what comes out of it is heard when it is over: who changes something upon
  /// hearing it changes it after the request. Of a plug-in that dies within a request the recording may hold more than
  /// was heard. One thread, that of the session.
  vconf::Status Handle(Session& session, std::string_view line, const Request& request);

  /// A line that comes out. Any thread.
  void Out(const Json& line);

  /// Whether anything so far could not be written. Any thread.
  bool Failed();

 private:
  void WriteLocked(const char* name, std::string_view text);
  void OnChange(const vconf::Change& change);

  const Keep keep_;
  const Hear hear_;
  std::mutex mutex_;  // guards the three below
  bool failed_ = false;
  bool handling_ = false;
  std::vector<std::string> unheard_;     // what has come out of the request that is handled
  std::unique_ptr<vconf::Watch> watch_;  // last, so that it ends first
};

struct Recording {
  SetState state;
  std::vector<std::string> watches;  ///< the paths that the plug-in was subscribed to already
  std::vector<std::string> in;
  std::vector<ParsedJson> out;
};

/// Reads the file, or says which line of it is none of a recording.
vconf::Result<Recording> ReadRecording(const std::string& file);

/// The messages of the page in it, in their order.
std::vector<ParsedJson> MessagesIn(const Recording& recording);

/// How what came out of a session differs from what was recorded, in lines for a person; empty when it does not.
///
/// Compared one by one are the replies to waiting calls, the deliveries and the events, each in their own order.
/// Deliveries come from the plug-in's worker and events from the store's thread, so the order between them is not the
/// plug-in's to keep.
std::string Difference(const Recording& recording, const std::vector<ParsedJson>& out);

/// Plays a recording with `plugin` on a fresh store and returns how what comes out differs, as above. Uses the
/// process's one store and one plug-in.
vconf::Result<std::string> Replay(const Recording& recording, const std::string& plugin);

}  // namespace desk
