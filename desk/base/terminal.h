#pragma once

#include <string>
#include <string_view>

#include "vconf_control.h"

/// Prints untrusted texts on a terminal, and converts values to and from their typed form. The store's content may come
/// from any program: characters that move the cursor, begin a line or change the writing direction are escaped. Any
/// thread.
namespace desk {

/// `text` on one line. Control characters, also those of 0x80 to 0x9f, line and paragraph separators and marks of the
/// writing direction become \n, \t or \u001b; bytes that are not UTF-8 become \xff. Everything else is unchanged.
std::string Printable(std::string_view text);

/// `text` in double quotes like a JSON string, with the same escapes.
std::string Quoted(std::string_view text);

/// A text as it is typed and printed: unchanged if nothing in it needs an escape and it does not begin with a quote or
/// dash. Otherwise in double quotes like a JSON string, in which a byte may also be written as \xff.
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
