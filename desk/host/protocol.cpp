#include "host/protocol.h"

#include <algorithm>
#include <cstddef>

#include "base/json.h"

namespace desk {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string_view Trim(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

// Whitespace between JSON tokens may contain newlines, which would split the line.
std::string Line(std::string_view name, std::string_view value) {
  std::string line;
  line.reserve(name.size() + value.size() + 6);
  line.append("{\"").append(name).append("\": ").append(value).append("}");
  std::ranges::replace(line, '\n', ' ');
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
  std::vector<RawMember> members;
  RawMember member;
  std::size_t begin = 0;  // of the current name or value
  int depth = 0;
  bool in_string = false;
  for (std::size_t at = 0; at < json.size(); ++at) {
    const char c = json[at];
    if (in_string) {
      at += c == '\\' ? 1 : 0;  // skips the escaped character
      in_string = c != '"';
      continue;
    }
    in_string = c == '"';
    const bool ends_container = c == '}' || c == ']';
    if (depth == 1 && (c == ',' || ends_container)) {
      member.value = Trim(json.substr(begin, at - begin));
      if (!member.value.empty()) {  // the container is not empty
        members.push_back(std::exchange(member, {}));
      }
      begin = at + 1;
    } else if (depth == 1 && c == ':') {
      member.name = Trim(json.substr(begin, at - begin));
      member.name = member.name.substr(1, member.name.size() - 2);  // without the quotes
      begin = at + 1;
    } else if (depth == 0 && (c == '{' || c == '[')) {
      begin = at + 1;
    }
    depth += c == '{' || c == '[' ? 1 : ends_container ? -1 : 0;
  }
  return members;
}

}  // namespace desk
