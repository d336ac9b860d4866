#pragma once

// Streams of events: server-sent events, and WebSockets, which also accept messages.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "server/connection.h"
#include "server/event_log.h"

namespace desk {

/// What a stream sends, and who handles what its client sends.
struct StreamSource {
  EventLog* log = nullptr;
  std::uint64_t position = 0;       ///< the number of the last event that the client has
  std::shared_ptr<void> held = {};  ///< is released when the stream ends, such as the owner of `log`

  /// Handles one text from a WebSocket's client and returns the answer to send, empty for none. `std::nullopt`: it
  /// cannot handle the text now, and is called with the same text again when the log's readers are notified. Null: what
  /// the client sends is ignored.
  std::function<std::optional<std::string>(std::string_view text)> on_text = {};
};

/// Answers a GET with a stream: a WebSocket if the request asks for an upgrade, otherwise server-sent events. The
/// stream lives until its client disconnects or the log is closed and was sent. A HEAD gets the head only. To be called
/// on the loop's thread.
void StartStream(const std::shared_ptr<Connection>& connection, StreamSource source);

}  // namespace desk
