#include "base/terminal.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <optional>
#include <utility>

#include <boost/locale/utf.hpp>

#include "base/json.h"

namespace desk {
namespace {

/// Whether a terminal acts on the character instead of showing it: controls, line and paragraph separators, and marks
/// of the writing direction.
bool IsControl(char32_t code) {
  return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x61c || code == 0x200e || code == 0x200f ||
         (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
}

std::string Escape(const char* format, unsigned number) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), format, number);
  return text.data();
}

std::string Escaped(std::string_view text, bool quoted) {
  using Utf8 = boost::locale::utf::utf_traits<char>;
  std::string out;
  for (const char *at = text.data(), *const end = at + text.size(); at != end;) {
    const char* const begin = at;
    const auto code = Utf8::decode(at, end);
    if (code == boost::locale::utf::illegal || code == boost::locale::utf::incomplete) {
      out += Escape("\\x%02x", static_cast<unsigned char>(*begin));
      at = begin + 1;
    } else if (code == '\n' || code == '\t') {
      out += code == '\n' ? "\\n" : "\\t";
    } else if (IsControl(code)) {
      out += Escape("\\u%04x", code);
    } else {
      out.append(quoted && (code == '"' || code == '\\') ? "\\" : "").append(begin, at);
    }
  }
  return out;
}

/// The content of a text in double quotes; nullopt if `argument` is not in quotes.
std::optional<std::string> Unquoted(std::string_view argument) {
  if (argument.size() < 2 || argument.front() != '"' || argument.back() != '"') {
    return std::nullopt;
  }
  argument = argument.substr(1, argument.size() - 2);
  std::string text;
  std::string part;  // the text since the last \x escape; JSON has no \x
  const auto end_part = [&] {
    const auto json = ParseJson('"' + std::exchange(part, {}) + '"');
    if (json.ok()) {
      text += json->get<std::string>();
    }
    return json.ok();
  };
  while (!argument.empty()) {
    const std::size_t size = argument[0] != '\\' ? 1 : argument.starts_with("\\x") ? 4 : 2;
    const std::string_view next = argument.substr(0, size);
    argument.remove_prefix(next.size());
    if (size < 4) {
      part += next;
      continue;
    }
    unsigned byte = 0;
    const auto read = std::from_chars(next.data() + 2, next.data() + next.size(), byte, 16);
    if (next.size() < 4 || read.ptr != next.data() + 4 || !end_part()) {
      return std::nullopt;
    }
    text += static_cast<char>(byte);
  }
  return end_part() ? std::optional(text) : std::nullopt;
}

}  // namespace

std::string Printable(std::string_view text) { return Escaped(text, false); }

std::string Quoted(std::string_view text) { return '"' + Escaped(text, true) + '"'; }

std::string TextFromArgument(const std::string& argument) { return Unquoted(argument).value_or(argument); }

std::string ToArgument(const vconf::Value& value) {
  const auto* const text = std::get_if<std::string>(&value);
  if (text == nullptr) {
    return ToText(ToJson(value));
  }
  // A text that begins with a dash would be parsed as an option; `mirado` prints (missing) and (removed) without
  // quotes.
  const bool is_plain = !text->empty() && std::string_view("\"-(").find(text->front()) == std::string_view::npos &&
                        Escaped(*text, false) == *text && ValueFromArgument(*text) == value;
  return is_plain ? *text : Quoted(*text);
}

vconf::Value ValueFromArgument(const std::string& argument) {
  if (auto text = Unquoted(argument)) {
    return *std::move(text);
  }
  const auto json = ParseJson(argument);
  const auto value = json.ok() ? ToValue(*json) : std::nullopt;
  return value && !std::holds_alternative<std::string>(*value) ? *value : vconf::Value(argument);
}

std::string ShellWord(const std::string& word) {
  constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:=*";
  if (!word.empty() && word.find_first_not_of(kPlain) == std::string::npos) {
    return word;
  }
  std::string quoted = "'";
  for (const char letter : word) {
    quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  }
  return quoted + "'";
}

}  // namespace desk
