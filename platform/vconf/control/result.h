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
  kBadName,       ///< a path that the store does not accept
  kBadValue,      ///< a value that the store does not accept, such as a text that is too long
  kFull,          ///< no space in the store, or on its disk
  kReadOnly,      ///< this process may read but not write the store
  kDamaged,       ///< the file contains data that was never written to it
  kRemoved,       ///< the store was removed or replaced while it was in use
  kBusy,          ///< another process held a lock for too long; the text names it
  kNotPermitted,  ///< a file of another user, or one that this user may not open
  kFailed,        ///< anything else, such as an I/O error
};

/// The outcome of a call: a code for programs, and a text for people that names the file or path and says what to do.
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

/// A value, or the failure.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}  // NOLINT(google-explicit-constructor)
  /// `failure` must not be ok.
  Result(Status failure)
      : content_(std::in_place_index<1>, std::move(failure)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return content_.index() == 0; }
  Status status() const { return ok() ? Status() : std::get<1>(content_); }

  /// Only if `ok()`. On a temporary, as in `*Get(path)`, returns the value by move.
  T& operator*() & { return std::get<0>(content_); }
  const T& operator*() const& { return std::get<0>(content_); }
  T operator*() && { return std::get<0>(std::move(content_)); }
  T* operator->() { return &std::get<0>(content_); }
  const T* operator->() const { return &std::get<0>(content_); }

 private:
  std::variant<T, Status> content_;
};

}  // namespace vconf
