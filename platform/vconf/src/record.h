#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "vconf_control.h"

/// Values, changes and faults as the bytes that stand in the store. Every record begins with a checksum over its key
/// and its content, so that noise, or a record under the wrong key, reads as nothing at all.
namespace vconf::record {

/// The longest text that a key may hold, in bytes.
constexpr std::size_t kMaxText = 65536;

/// Longer than any record: a size beyond it is noise.
constexpr std::size_t kMaxSize = kMaxText + 64;

std::string EncodeValue(std::string_view key, const Value& value);
std::optional<Value> DecodeValue(std::string_view key, std::string_view bytes);

/// A change as the journal keeps it. A long text is left out: `value_left_out` sends the reader to the key itself.
struct JournalEntry {
  Change change;
  bool value_left_out = false;
};
std::string EncodeChange(std::string_view key, std::uint64_t sequence, std::string_view path,
                         const std::optional<Value>& value);
std::optional<JournalEntry> DecodeChange(std::string_view key, std::string_view bytes);

std::string EncodeNumber(std::string_view key, std::uint64_t number);
std::optional<std::uint64_t> DecodeNumber(std::string_view key, std::string_view bytes);

struct Answer {
  std::int32_t answer;
  std::uint32_t times;
};
std::string EncodeAnswer(std::string_view key, const Answer& answer);
std::optional<Answer> DecodeAnswer(std::string_view key, std::string_view bytes);

std::string EncodeText(std::string_view key, std::string_view text);
std::optional<std::string> DecodeText(std::string_view key, std::string_view bytes);

}  // namespace vconf::record
