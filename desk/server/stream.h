#pragma once

// Streams: server-sent events, and WebSockets that carry the same events and take messages.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "server/connection.h"
#include "server/event_log.h"

namespace desk {

/// What a stream tells and whom it serves.
struct Following {
  EventLog* log = nullptr;
  std::uint64_t position = 0;       ///< behind which it begins
  std::shared_ptr<void> held = {};  ///< what must live as long as the stream, such as what `log` belongs to

  /// Takes what a page says on its socket, one text at a time, and returns the answer, empty for none. Nothing when it
  /// cannot take the text yet; then it is given the same text again when the log's readers are told. Null for a socket
  /// that takes nothing.
  std::function<std::optional<std::string>(std::string_view text)> on_text = {};
};

/// Turns the connection of a GET into a stream: into a WebSocket where the request asks for one. It lives until its
/// client goes or the log is closed. A HEAD is answered. The loop's thread alone.
void StartStream(const std::shared_ptr<Connection>& connection, Following following);

}  // namespace desk
