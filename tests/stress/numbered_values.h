#pragma once

#include <cstdlib>
#include <string>

#include "vconf_control.h"

/// A text that depends on `number` in its first word, its length and its letter; often longer than a page.
inline std::string TextOf(int number) {
  return std::to_string(number) + ' ' +
         std::string(static_cast<std::size_t>(number) * 7919 % 9000, static_cast<char>('a' + number % 26));
}

/// The number in the value of a key; 0 if the key is missing; -1 if it cannot be read or was never written.
inline int NumberIn(const char* path) {
  const auto value = vconf::Get(path);
  if (!value.ok()) return value.status().code() == vconf::Code::kMissing ? 0 : -1;
  if (const int* const number = std::get_if<int>(&*value)) return *number;
  const auto& text = std::get<std::string>(*value);
  const int number = std::atoi(text.c_str());
  return text == TextOf(number) ? number : -1;
}
