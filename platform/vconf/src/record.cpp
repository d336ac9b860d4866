#include "record.h"

#include <cstring>
#include <type_traits>
#include <utility>

namespace vconf::record {
namespace {

enum class Tag : std::uint8_t { kRemoved = 0, kInt = 1, kBool = 2, kText = 3, kLeftOut = 4 };

// The journal keeps a text up to this length itself, which bounds the space that it takes.
constexpr std::size_t kMaxJournalText = 128;

std::uint64_t Mix(std::uint64_t hash, std::string_view bytes) {
  constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15U;
  const auto step = [&hash](std::uint64_t chunk) {
    hash = (hash ^ chunk) * kOdd;
    hash ^= hash >> 32U;
  };
  step(bytes.size());
  std::uint64_t chunk = 0;
  for (; bytes.size() >= sizeof chunk; bytes.remove_prefix(sizeof chunk)) {
    std::memcpy(&chunk, bytes.data(), sizeof chunk);
    step(chunk);
  }
  if (!bytes.empty()) {
    chunk = 0;
    std::memcpy(&chunk, bytes.data(), bytes.size());
    step(chunk);
  }
  return hash;
}

std::uint64_t Checksum(std::string_view key, std::string_view content) { return Mix(Mix(0, key), content); }

// Fields in the machine's own order: a store does not travel.
class Writer {
 public:
  Writer() : bytes_(sizeof(std::uint64_t), '\0') {}

  template <typename T>
  Writer& Add(T field) {
    static_assert(std::is_trivially_copyable_v<T>);
    bytes_.append(reinterpret_cast<const char*>(&field), sizeof field);
    return *this;
  }
  Writer& AddBytes(std::string_view bytes) {
    bytes_.append(bytes);
    return *this;
  }
  Writer& AddValue(const Value& value) {
    if (const int* number = std::get_if<int>(&value)) {
      return Add(Tag::kInt).Add(*number);
    }
    if (const bool* flag = std::get_if<bool>(&value)) {
      return Add(Tag::kBool).Add(static_cast<std::uint8_t>(*flag));
    }
    return Add(Tag::kText).AddBytes(std::get<std::string>(value));
  }
  std::string Finish(std::string_view key) {
    const std::uint64_t checksum = Checksum(key, std::string_view(bytes_).substr(sizeof checksum));
    std::memcpy(bytes_.data(), &checksum, sizeof checksum);
    return std::move(bytes_);
  }

 private:
  std::string bytes_;
};

class Reader {
 public:
  Reader(std::string_view key, std::string_view bytes) : rest_(bytes) {
    const auto checksum = Take<std::uint64_t>();
    good_ = good_ && checksum == Checksum(key, rest_);
  }

  bool good() const { return good_; }
  bool done() const { return good_ && rest_.empty(); }

  template <typename T>
  T Take() {
    T field{};
    if (rest_.size() < sizeof field) {
      good_ = false;
      return field;
    }
    std::memcpy(&field, rest_.data(), sizeof field);
    rest_.remove_prefix(sizeof field);
    return field;
  }
  std::string_view TakeBytes(std::size_t size) {
    const std::string_view bytes = rest_.substr(0, size);
    good_ = good_ && bytes.size() == size;
    rest_.remove_prefix(bytes.size());
    return bytes;
  }
  std::string_view TakeRest() { return TakeBytes(rest_.size()); }

 private:
  std::string_view rest_;
  bool good_ = true;
};

std::optional<Value> TakeValue(Reader& reader, Tag tag) {
  switch (tag) {
    case Tag::kInt:
      return reader.Take<int>();
    case Tag::kBool:
      return reader.Take<std::uint8_t>() != 0;
    case Tag::kText:
      return std::string(reader.TakeRest());
    case Tag::kRemoved:
    case Tag::kLeftOut:
      break;
  }
  return std::nullopt;
}

}  // namespace

std::string EncodeValue(std::string_view key, const Value& value) { return Writer().AddValue(value).Finish(key); }

std::optional<Value> DecodeValue(std::string_view key, std::string_view bytes) {
  Reader reader(key, bytes);
  if (!reader.good()) {
    return std::nullopt;
  }
  std::optional<Value> value = TakeValue(reader, reader.Take<Tag>());
  return reader.done() ? std::move(value) : std::nullopt;
}

std::string EncodeChange(std::string_view key, std::uint64_t sequence, std::string_view path,
                         const std::optional<Value>& value) {
  Writer writer;
  writer.Add(sequence).Add(static_cast<std::uint16_t>(path.size())).AddBytes(path);
  if (!value) {
    writer.Add(Tag::kRemoved);
  } else if (const auto* text = std::get_if<std::string>(&*value); text != nullptr && text->size() > kMaxJournalText) {
    writer.Add(Tag::kLeftOut);
  } else {
    writer.AddValue(*value);
  }
  return writer.Finish(key);
}

std::optional<JournalEntry> DecodeChange(std::string_view key, std::string_view bytes) {
  Reader reader(key, bytes);
  if (!reader.good()) {
    return std::nullopt;
  }
  JournalEntry entry;
  entry.change.sequence = reader.Take<std::uint64_t>();
  entry.change.path = reader.TakeBytes(reader.Take<std::uint16_t>());
  const auto tag = reader.Take<Tag>();
  entry.change.value = TakeValue(reader, tag);
  entry.value_left_out = tag == Tag::kLeftOut;
  return reader.done() ? std::optional(std::move(entry)) : std::nullopt;
}

std::string EncodeNumber(std::string_view key, std::uint64_t number) { return Writer().Add(number).Finish(key); }

std::optional<std::uint64_t> DecodeNumber(std::string_view key, std::string_view bytes) {
  Reader reader(key, bytes);
  const auto number = reader.Take<std::uint64_t>();
  return reader.done() ? std::optional(number) : std::nullopt;
}

std::string EncodeAnswer(std::string_view key, const Answer& answer) { return Writer().Add(answer).Finish(key); }

std::optional<Answer> DecodeAnswer(std::string_view key, std::string_view bytes) {
  Reader reader(key, bytes);
  const auto answer = reader.Take<Answer>();
  return reader.done() ? std::optional(answer) : std::nullopt;
}

std::string EncodeText(std::string_view key, std::string_view text) { return Writer().AddBytes(text).Finish(key); }

std::optional<std::string> DecodeText(std::string_view key, std::string_view bytes) {
  Reader reader(key, bytes);
  return reader.good() ? std::optional<std::string>(reader.TakeRest()) : std::nullopt;
}

}  // namespace vconf::record
