#pragma once

#include <functional>
#include <string>
#include <string_view>

/// The side of the logger that a runtime or a test steers.
namespace dlog {

/// One line as the writer gave it; the views live for the call only.
struct Line {
  int log_id;
  int priority;
  std::string_view tag;
  std::string_view text;
};

using Sink = std::function<void(const Line&)>;

/// Lines below `priority` are dropped before they are formatted. At load it is 4, so that all of the plug-in's lines
/// pass. Any thread.
void SetThreshold(int priority);

/// Sends every line to `sink` in place of stderr; an empty sink brings stderr back. The sink is called on the writer's
/// thread, one call at a time; it must not log. When the call returns, no earlier sink is running any more.
void SetSink(Sink sink);

/// The line as it stands on stderr, without the newline: priority letter, tag, log id, text,
/// such as "I/QRL_BASE(0): text".
std::string Format(const Line& line);

}  // namespace dlog
