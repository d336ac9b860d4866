#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "base/json.h"

/// Checks which messages a page has sent. Any thread.
namespace desk {

/// The messages that a page is expected to have sent. A message here is a pattern: an object whose members the page's
/// message must contain, or the name of a command.
struct Expectation {
  static constexpr std::size_t kMaxMessages = 100;

  std::vector<ParsedJson> messages;  ///< each at least as often as in this list
  bool order = false;                ///< in this order; other messages may come between
  bool exact = false;                ///< and nothing else
  std::optional<int> times;  ///< each of them exactly so often instead; other messages are ignored; 0 means never
};

/// {"messages": [M, …], "order": false, "exact": false, "times": 2}; all but "messages" are optional.
vconf::Result<Expectation> ExpectationFromJson(const ParsedJson& json);

/// `kBadValue` for too many messages, for none, and for options that cannot be combined.
vconf::Status CheckExpectation(const Expectation& expected);

/// Missing, unexpected and misplaced messages, as lines for a person, with the messages sent instead; empty if all is
/// as expected. `sent` has the page's messages in order; `expected` must pass `CheckExpectation`.
std::string SentDifference(const std::vector<ParsedJson>& sent, const Expectation& expected);

/// The page's messages as numbered lines.
std::string SentList(const std::vector<ParsedJson>& sent);

}  // namespace desk
