#pragma once

// Streams: server-sent events, and WebSockets that carry the same events and take messages.

#include <functional>
#include <memory>
#include <string_view>

#include "server/connection.h"
#include "server/event_log.h"

namespace desk {

/// What a stream tells and whom it serves.
struct Following {
  EventLog* log = nullptr;
  std::uint64_t position = 0;           ///< behind which it begins
  std::shared_ptr<void> keeps = {};     ///< what `log` belongs to
  std::function<void()> on_close = {};  ///< the stream has ended, for whatever cause

  /// What a page says on its socket, one text at a time: the next comes when `done` was called, which takes the text to
  /// answer with; empty for none. Null for a socket that takes nothing.
  std::function<void(std::string_view text, std::function<void(std::string)> done)> on_text = {};
};

/// Turns the connection of a GET into a stream: into a WebSocket where the request asks for one. It lives until its
/// client goes or the log is closed. The loop's thread alone.
void StartStream(const std::shared_ptr<Connection>& connection, Following following);

/// Calls `on_none` when no stream is open any more, perhaps at once.
void AwaitNoStreams(std::function<void()> on_none);

/// Closes all in the middle of whatever they do.
void CloseStreams();

}  // namespace desk
