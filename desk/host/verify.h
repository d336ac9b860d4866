#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "base/json.h"

/// Whether a page asked what it should have asked. Any thread.
namespace desk {

/// What a page is expected to have asked. A message here is a pattern: an object that the page's message holds, member
/// by member, or the name of a command.
struct Expectation {
  static constexpr std::size_t kMaxMessages = 100;

  std::vector<ParsedJson> messages;  ///< each as often as it stands here, or more often
  bool order = false;                ///< in this order, whatever comes between
  bool exact = false;                ///< and nothing else
  std::optional<int> times;          ///< each of them exactly so often instead, whatever else was asked; 0 is never
};

/// {"messages": [M, …], "order": false, "exact": false, "times": 2}; all but "messages" may be left out.
vconf::Result<Expectation> ExpectationFromJson(const ParsedJson& json);

/// `kBadValue` for too many messages, for none, and for parts that do not go together.
vconf::Status CheckExpectation(const Expectation& expected);

/// What is missing, too much or in another order, in lines for a person, and what was asked instead; empty when all is
/// as expected. `asked` has the page's messages in their order; `expected` passes `CheckExpectation`.
std::string AskedDifference(const std::vector<ParsedJson>& asked, const Expectation& expected);

/// The page's messages as numbered lines.
std::string AskedList(const std::vector<ParsedJson>& asked);

}  // namespace desk
