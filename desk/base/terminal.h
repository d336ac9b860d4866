#pragma once

#include <string>
#include <string_view>

#include "vconf_control.h"

/// Texts of anybody on a terminal, and values as they are typed. What the store holds may come from any program: what
/// would move the cursor, begin a line or change the order of the letters goes out as an escape. Any thread.
namespace desk {

/// `text` on one line. Control characters, also those of 0x80 to 0x9f, line and paragraph separators and marks of the
/// writing direction become \n, \t or \u001b; bytes that are no UTF-8 become \xff. Everything else stays.
std::string Printable(std::string_view text);

/// `text` in double quotes like a JSON string, with the same escapes.
std::string Quoted(std::string_view text);

/// A text as it is typed and printed: as it is, where nothing in it needs an escape and it begins with no quote or
/// dash. Else it is in double quotes like a JSON string, which may hold \xff for a byte besides.
std::string TextToArgument(const std::string& text);
std::string TextFromArgument(const std::string& argument);

/// A value as it is typed and printed: an integer of 32 bits, true, false, or else a text as above. A text that looks
/// like one of the others, that is empty or begins with a quote or a bracket is in quotes. Each is the other's way
/// back.
std::string ToArgument(const vconf::Value& value);
vconf::Value ValueFromArgument(const std::string& argument);

/// `word` as a POSIX shell takes it for one word.
std::string ShellWord(const std::string& word);

}  // namespace desk
