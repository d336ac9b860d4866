#pragma once

#include <functional>
#include <string>
#include <string_view>

/// Controls the logger, for a runtime or a test.
namespace dlog {

/// A log line as it was written. The views are valid only during the call.
struct Line {
  int log_id;
  int priority;
  std::string_view tag;
  std::string_view text;
};

using Sink = std::function<void(const Line&)>;

/// Drops lines below `priority` before they are formatted. The initial value is 4, which keeps all lines of the
/// plug-in. Any thread.
void SetThreshold(int priority);

/// Passes every line to `sink` instead of stderr; an empty sink restores stderr. The sink is called on the writing
/// thread, one call at a time, and must not log. When this returns, the previous sink is not running any more.
void SetSink(Sink sink);

/// The line as it is written to stderr, without the newline: priority letter, tag, log id, text,
/// such as "I/QRL_BASE(0): text".
std::string Format(const Line& line);

}  // namespace dlog
