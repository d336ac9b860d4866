#include "base/terminal.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <optional>
#include <utility>

#include "base/json.h"

namespace desk {
namespace {

struct Character {
  char32_t code;     ///< of no meaning where `size` is 0
  std::size_t size;  ///< in bytes; 0 when no UTF-8 begins here
};

/// The first character of `text`, which is not empty.
Character First(std::string_view text) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  if (byte(0) < 0x80) {
    return {byte(0), 1};
  }
  const std::size_t size = byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : 2;
  constexpr std::array<char32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
  if (byte(0) < 0xc2 || byte(0) > 0xf4 || text.size() < size) {
    return {0, 0};
  }
  char32_t code = byte(0) & (0xffU >> (size + 1));
  for (std::size_t at = 1; at < size; ++at) {
    if ((byte(at) & 0xc0U) != 0x80) {
      return {0, 0};
    }
    code = (code << 6U) | (byte(at) & 0x3fU);
  }
  const bool surrogate = code >= 0xd800 && code <= 0xdfff;
  return {code, code < kLeast[size] || code > 0x10ffff || surrogate ? 0 : size};
}

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
  std::string out;
  while (!text.empty()) {
    const Character next = First(text);
    const std::size_t size = next.size == 0 ? 1 : next.size;
    if (next.size == 0) {
      out += Escape("\\x%02x", static_cast<unsigned char>(text[0]));
    } else if (next.code == '\n' || next.code == '\t') {
      out += next.code == '\n' ? "\\n" : "\\t";
    } else if (IsControl(next.code)) {
      out += Escape("\\u%04x", static_cast<unsigned>(next.code));
    } else {
      out.append(quoted && (next.code == '"' || next.code == '\\') ? "\\" : "").append(text.substr(0, size));
    }
    text.remove_prefix(size);
  }
  return out;
}

/// The content of a text in double quotes; empty if `argument` is not one.
std::optional<std::string> Unquoted(std::string_view argument) {
  if (argument.size() < 2 || argument.front() != '"' || argument.back() != '"') {
    return std::nullopt;
  }
  argument = argument.substr(1, argument.size() - 2);
  std::string text;
  std::string part;  // without a \x, so that JSON can read it
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

/// A text that begins with a dash would be taken for an option.
bool NeedsQuotes(const std::string& text) {
  return text.starts_with('"') || text.starts_with('-') || Escaped(text, false) != text;
}

}  // namespace

std::string Printable(std::string_view text) { return Escaped(text, false); }

std::string Quoted(std::string_view text) { return '"' + Escaped(text, true) + '"'; }

std::string TextToArgument(const std::string& text) { return NeedsQuotes(text) ? Quoted(text) : text; }

std::string TextFromArgument(const std::string& argument) { return Unquoted(argument).value_or(argument); }

std::string ToArgument(const vconf::Value& value) {
  const auto* const text = std::get_if<std::string>(&value);
  if (text == nullptr) {
    return ToText(ToJson(value));
  }
  return text->empty() || text->front() == '(' || NeedsQuotes(*text) || ValueFromArgument(*text) != value
             ? Quoted(*text)
             : *text;
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
