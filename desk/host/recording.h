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
/// A change by another process between two requests is recorded as a request, {"in": {"set": …}}. Not recorded are
/// invalid lines, which never reached the plug-in, and what a replay cannot repeat: faults that were set or cleared
/// meanwhile, keys that another process removed, and changes by another process while the plug-in handled a request,
/// which cannot be distinguished from the changes of the request.
namespace desk {

/// Writes a recording.
class Recorder {
 public:
  /// Receives a line of output; one at a time.
  using Hear = std::function<void(std::string)>;

  /// Receives a line of the recording, without its newline, and returns whether it was written; one at a time.
  using Keep = std::function<bool(std::string_view)>;

  /// Writes the first line, with the current state of the open store and the plug-in's subscriptions, and records
  /// changes from then on. Output is also passed to `hear`.
  Recorder(Keep keep, Hear hear);

  /// Writes the lines to `file`.
  static Keep In(const std::string& file);

  /// Does `request`, which came in as `line`. A recording must say the same each time it is played, so everything is
  /// seen through before and after it, and what comes out of it is heard when it is over: who changes something upon
  /// hearing it changes it after the request. Of a plug-in that dies within a request the recording may hold more than
  /// was heard. One thread, that of the session.
  vconf::Status Handle(Session& session, std::string_view line, const Request& request);

  /// A line of output. Any thread.
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
  std::vector<std::string> unheard_;     // the output so far of the current request
  std::unique_ptr<vconf::Watch> watch_;  // last, so that it is destroyed first
};

struct Recording {
  SetState state;
  std::vector<std::string> watches;  ///< the paths that the plug-in was subscribed to already
  std::vector<std::string> in;
  std::vector<ParsedJson> out;
};

/// Reads the file; a failure names the first invalid line.
vconf::Result<Recording> ReadRecording(const std::string& file);

/// The messages of the page in it, in their order.
std::vector<ParsedJson> MessagesIn(const Recording& recording);

/// The differences between the output of a session and the recorded output, as lines for a person; empty if equal.
///
/// Compared one by one are the replies to waiting calls, the deliveries and the events, each in their own order.
/// Deliveries come from the plug-in's worker and events from the store's thread, so the order between them is not the
/// plug-in's to keep.
std::string Difference(const Recording& recording, const std::vector<ParsedJson>& out);

/// Replays a recording with `plugin` on a new store and returns the differences of the output, as above. Uses the
/// process's only store and plug-in.
vconf::Result<std::string> Replay(const Recording& recording, const std::string& plugin);

}  // namespace desk
