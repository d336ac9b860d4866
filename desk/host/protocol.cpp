#include "host/protocol.h"

#include <algorithm>

#include "base/json.h"

namespace desk {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string_view Trim(std::string_view text) {
  const std::size_t start = std::min(text.find_first_not_of(kBlanks), text.size());
  return text.substr(start, text.find_last_not_of(kBlanks) + 1 - start);
}

// The position after the JSON string that begins at `at`.
std::size_t EndOfText(std::string_view json, std::size_t at) {
  for (++at; at < json.size() && json[at] != '"'; ++at) {
    at += json[at] == '\\' ? 1 : 0;
  }
  return std::min(at + 1, json.size());
}

// The end of the value that begins at `at`: the position of the following comma or bracket.
std::size_t EndOfValue(std::string_view json, std::size_t at) {
  int depth = 0;
  while (at < json.size()) {
    const char c = json[at];
    if (c == '"') {
      at = EndOfText(json, at);
      continue;
    }
    if (depth == 0 && (c == ',' || c == '}' || c == ']')) {
      break;
    }
    depth += c == '{' || c == '[' ? 1 : 0;
    depth -= c == '}' || c == ']' ? 1 : 0;
    ++at;
  }
  return at;
}

int DepthOf(std::string_view json) {
  int depth = 0;
  int deepest = 0;
  for (std::size_t at = 0; at < json.size(); ++at) {
    const char c = json[at];
    if (c == '"') {
      at = EndOfText(json, at) - 1;
    }
    depth += c == '{' || c == '[' ? 1 : 0;
    depth -= c == '}' || c == ']' ? 1 : 0;
    deepest = std::max(deepest, depth);
  }
  return deepest;
}

// Whitespace between JSON tokens may contain newlines, which would split the line.
std::string Line(std::string_view name, std::string_view value) {
  std::string line;
  line.reserve(name.size() + value.size() + 6);
  line.append("{\"").append(name).append("\": ").append(value).append("}");
  std::ranges::replace_if(
      line, [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return line;
}

}  // namespace

std::string FormatLine(In kind, std::string_view value) {
  return Line(kInNames[static_cast<std::size_t>(kind)], value);
}

std::string FormatLine(Out kind, std::string_view value) {
  return Line(kOutNames[static_cast<std::size_t>(kind)], value);
}

std::optional<OutLine> ReadOutLine(std::string_view line) {
  if (!line.starts_with('{') || !ParsedJson::accept(line)) {
    return std::nullopt;
  }
  const auto members = RawMembers(line);
  if (members.size() != 1) {
    return std::nullopt;
  }
  const auto* const name = std::ranges::find(kOutNames, members.front().name);
  if (name == kOutNames.end()) {
    return std::nullopt;
  }
  return OutLine{.kind = static_cast<Out>(name - kOutNames.begin()), .value = members.front().value};
}

std::vector<RawMember> RawMembers(std::string_view json) {
  json = Trim(json);
  if (!json.starts_with('{') && !json.starts_with('[')) {
    return {};
  }
  const bool named = json.front() == '{';
  std::vector<RawMember> members;
  for (std::size_t at = json.find_first_not_of(kBlanks, 1); at < json.size() - 1;) {
    RawMember member;
    if (named) {
      const std::size_t end = EndOfText(json, at);
      member.name = json.substr(at + 1, end - at - 2);
      at = json.find_first_not_of(kBlanks, json.find(':', end) + 1);
    }
    const std::size_t end = EndOfValue(json, at);
    member.value = Trim(json.substr(at, end - at));
    members.push_back(member);
    at = std::min(json.find_first_not_of(kBlanks, end + 1), json.size());
  }
  return members;
}

bool IsJson(std::string_view text) { return ParsedJson::accept(text) && DepthOf(text) <= kMaxJsonDepth; }

}  // namespace desk
