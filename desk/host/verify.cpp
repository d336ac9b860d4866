#include "host/verify.h"

#include <algorithm>
#include <functional>

#include "base/terminal.h"

namespace desk {
namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);
constexpr std::size_t kShown = 50;
constexpr char kExpectationForm[] =
    R"(an expectation is {"messages": [M, …], "order": true, "exact": true, "times": integer}; all but "messages" are optional)";

bool Holds(const ParsedJson& message, const ParsedJson& pattern) {
  if (!pattern.is_object() || !message.is_object()) {
    return message == pattern;
  }
  return std::ranges::all_of(pattern.items(), [&](const auto& member) {
    const auto found = message.find(member.key());
    return found != message.end() && Holds(*found, member.value());
  });
}

bool Matches(const ParsedJson& message, const ParsedJson& pattern) {
  return Holds(message, pattern) ||
         (pattern.is_string() && message.is_object() && message.value("command", ParsedJson()) == pattern);
}

/// The key by which messages are grouped: the command, or the whole message if it is not an object.
ParsedJson KindOf(const ParsedJson& message) {
  return message.is_object() ? message.value("command", ParsedJson()) : message;
}

std::string Text(const ParsedJson& json) {
  return Printable(json.dump(-1, ' ', false, ParsedJson::error_handler_t::replace));
}

/// The first messages that match `pattern`, at most `most`.
std::vector<std::size_t> Candidates(const std::vector<ParsedJson>& sent, const ParsedJson& pattern, std::size_t most) {
  std::vector<std::size_t> candidates;
  for (std::size_t at = 0; at < sent.size() && candidates.size() < most; ++at) {
    if (Matches(sent[at], pattern)) {
      candidates.push_back(at);
    }
  }
  return candidates;
}

/// Assigns messages to patterns, such that as many patterns as possible have a message (bipartite matching). A message
/// may match several patterns: a pattern takes a message from another one that can use a different message.
std::vector<std::size_t> Assign(const std::vector<ParsedJson>& sent, const std::vector<ParsedJson>& patterns) {
  std::vector<std::vector<std::size_t>> candidates;
  candidates.reserve(patterns.size());
  for (const ParsedJson& pattern : patterns) {
    candidates.push_back(Candidates(sent, pattern, patterns.size()));  // with so many, one is always free
  }
  std::vector<std::size_t> taken(sent.size(), kNone);
  std::vector<bool> tried;
  const std::function<bool(std::size_t)> place = [&](std::size_t pattern) {
    return std::ranges::any_of(candidates[pattern], [&](std::size_t at) {
      if (tried[at]) {
        return false;
      }
      tried[at] = true;
      const bool free = taken[at] == kNone || place(taken[at]);
      taken[at] = free ? pattern : taken[at];
      return free;
    });
  };
  for (std::size_t pattern = 0; pattern < patterns.size(); ++pattern) {
    tried.assign(sent.size(), false);
    place(pattern);
  }
  return taken;
}

/// The same in order: each pattern takes the first matching message after that of the previous pattern.
std::vector<std::size_t> AssignInOrder(const std::vector<ParsedJson>& sent, const std::vector<ParsedJson>& patterns) {
  std::vector<std::size_t> taken(sent.size(), kNone);
  std::size_t begin = 0;
  for (std::size_t pattern = 0; pattern < patterns.size(); ++pattern) {
    std::size_t at = begin;
    while (at < sent.size() && !Matches(sent[at], patterns[pattern])) {
      ++at;
    }
    if (at < sent.size()) {
      taken[at] = pattern;
      begin = at + 1;
    }
  }
  return taken;
}

std::string WrongCounts(const std::vector<ParsedJson>& sent, const Expectation& expected) {
  std::string text;
  for (const ParsedJson& pattern : expected.messages) {
    const auto count = std::ranges::count_if(sent, [&](const auto& message) { return Matches(message, pattern); });
    if (count != *expected.times) {
      text += "  number of times sent: " + std::to_string(count) + " instead of " + std::to_string(*expected.times) +
              ": " + Text(pattern) + "\n";
    }
  }
  return text;
}

std::string Missing(const std::vector<ParsedJson>& sent, const ParsedJson& pattern, bool in_order) {
  if (in_order && std::ranges::any_of(sent, [&](const auto& message) { return Matches(message, pattern); })) {
    return "  sent, but not in this order: " + Text(pattern) + "\n";
  }
  std::string text = "  not sent: " + Text(pattern) + "\n";
  const auto alike = std::ranges::find_if(
      sent, [&](const auto& message) { return !KindOf(message).is_null() && KindOf(message) == KindOf(pattern); });
  if (alike != sent.end() && !Matches(*alike, pattern)) {
    text += "  but sent: " + Text(*alike) + "\n";
  }
  return text;
}

}  // namespace

vconf::Result<Expectation> ExpectationFromJson(const ParsedJson& json) {
  Expectation expected;
  if (!json.is_object() || !json.contains("messages")) {
    return BadValue(kExpectationForm);
  }
  for (const auto& [name, member] : json.items()) {
    if (name == "messages" && member.is_array()) {
      expected.messages = member.get<std::vector<ParsedJson>>();
    } else if (name == "order" && member.is_boolean()) {
      expected.order = member.get<bool>();
    } else if (name == "exact" && member.is_boolean()) {
      expected.exact = member.get<bool>();
    } else if (name == "times" && ToValue(member) && std::holds_alternative<int>(*ToValue(member))) {
      expected.times = std::get<int>(*ToValue(member));
    } else {
      return BadValue("\"" + name + "\" is unknown or has a wrong value; " + kExpectationForm);
    }
  }
  const auto status = CheckExpectation(expected);
  return status.ok() ? vconf::Result(std::move(expected)) : status;
}

vconf::Status CheckExpectation(const Expectation& expected) {
  if (expected.messages.empty() && !expected.exact) {
    return BadValue("nothing to check: name a message, or use \"exact\" to expect none");
  }
  if (expected.messages.size() > Expectation::kMaxMessages) {
    return BadValue("too many messages: at most " + std::to_string(Expectation::kMaxMessages) + " can be checked");
  }
  if (expected.times && (expected.order || expected.exact || *expected.times < 0)) {
    return BadValue(R"("times" must be 0 or more, and cannot be combined with "order" or "exact")");
  }
  return {};
}

std::string SentDifference(const std::vector<ParsedJson>& sent, const Expectation& expected) {
  std::string text;
  if (expected.times) {
    text = WrongCounts(sent, expected);
  } else {
    const auto taken = (expected.order ? AssignInOrder : Assign)(sent, expected.messages);
    for (std::size_t pattern = 0; pattern < expected.messages.size(); ++pattern) {
      if (std::ranges::find(taken, pattern) == taken.end()) {
        text += Missing(sent, expected.messages[pattern], expected.order);
      }
    }
    for (std::size_t at = 0; expected.exact && at < sent.size(); ++at) {
      if (taken[at] == kNone) {
        text += "  sent, but not expected: " + Text(sent[at]) + "\n";
      }
    }
  }
  return text.empty() ? text : text + "the page sent:\n" + SentList(sent);
}

std::string SentList(const std::vector<ParsedJson>& sent) {
  std::string text = sent.empty() ? "  no messages\n" : "";
  for (std::size_t at = 0; at < std::min(sent.size(), kShown); ++at) {
    text += "  " + std::to_string(at + 1) + "  " + Text(sent[at]) + "\n";
  }
  return sent.size() > kShown ? text + "  and " + std::to_string(sent.size() - kShown) + " more\n" : text;
}

}  // namespace desk
