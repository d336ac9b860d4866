#pragma once

#include <string>
#include <string_view>

#include "vconf_control.h"

/// Texts and values as they are printed on a terminal and typed as arguments. Any program may have written a text in
/// the store, so characters that move the cursor, begin a line or change the writing direction are escaped. Any thread.
namespace desk {

/// `text` on one line. Control characters, also those of 0x80 to 0x9f, line and paragraph separators and marks of the
/// writing direction become \n, \t or \u001b; bytes that are not UTF-8 become \xff. Everything else is unchanged.
std::string Printable(std::string_view text);

/// `text` in double quotes like a JSON string, with the same escapes.
std::string Quoted(std::string_view text);

/// A value as it is printed and typed: a 32-bit integer, true, false, or else a text. A text is in double quotes, like
/// a JSON string in which a byte may also be written as \xff, if it needs an escape, looks like a number or a boolean,
/// is empty, or begins with a quote, a dash or a bracket. The two functions are inverse.
std::string ToArgument(const vconf::Value& value);
vconf::Value ValueFromArgument(const std::string& argument);

/// The same where only a text is meant, so that `42` needs no quotes.
std::string TextFromArgument(const std::string& argument);

/// `word` quoted for a POSIX shell, if necessary.
std::string ShellWord(const std::string& word);

}  // namespace desk
