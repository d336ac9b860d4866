#pragma once

#include <string>
#include <utility>
#include <variant>

namespace vconf {

/// Why a call failed, for programs: exit statuses and HTTP statuses follow from it.
enum class Code {
  kOk,
  kMissing,       ///< no such key, or no store where one was expected
  kWrongType,     ///< the key holds a value of another type
  kBadName,       ///< a path that the store does not serve
  kBadValue,      ///< a value that the store does not take, such as a text that is too long
  kFull,          ///< no room in the store, or on its disk
  kReadOnly,      ///< this process may read the store and not write it
  kDamaged,       ///< the file holds something that was never written
  kRemoved,       ///< the store was removed or replaced while it was in use
  kBusy,          ///< another process held a lock for too long; the text names it
  kNotPermitted,  ///< a file of another user, or one that this user may not open
  kFailed,        ///< anything else, such as an input or output error
};

/// How a call ended: a code for programs, and a text for people that names the file or the path and says what to do.
class [[nodiscard]] Status {
 public:
  Status() = default;  ///< success
  Status(Code code, std::string text) : code_(code), text_(std::move(text)) {}

  bool ok() const { return code_ == Code::kOk; }
  Code code() const { return code_; }
  const std::string& text() const { return text_; }  ///< empty on success

 private:
  Code code_ = Code::kOk;
  std::string text_;
};

/// A value, or the status that says why there is none.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}  // NOLINT(google-explicit-constructor)
  /// `failure` is never ok.
  Result(Status failure)
      : content_(std::in_place_index<1>, std::move(failure)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return content_.index() == 0; }
  Status status() const { return ok() ? Status() : std::get<1>(content_); }

  /// Only when `ok()`. From a result that is about to go, as in `*Get(path)`, the value itself.
  T& operator*() & { return std::get<0>(content_); }
  const T& operator*() const& { return std::get<0>(content_); }
  T operator*() && { return std::get<0>(std::move(content_)); }
  T* operator->() { return &std::get<0>(content_); }
  const T* operator->() const { return &std::get<0>(content_); }

 private:
  std::variant<T, Status> content_;
};

}  // namespace vconf
