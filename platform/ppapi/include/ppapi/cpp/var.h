#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "ppapi/c/pp_var.h"

namespace pp {

/// Says that a constructor takes over a reference instead of adding one.
enum PassRef { PASS_REF };

/// A variable that holds one reference to its value. Copies share strings, arrays and dictionaries.
///
/// Different threads may hold copies of one variable. While several threads hold a dictionary or an array, it must not
/// be changed.
class Var {
 public:
  struct Null {};

  Var() noexcept : Var(PP_VARTYPE_UNDEFINED) {}  ///< undefined
  Var(Null) noexcept : Var(PP_VARTYPE_NULL) {}
  Var(bool value) noexcept : Var(PP_VARTYPE_BOOL) { var_.value.as_bool = value; }
  Var(std::int32_t value) noexcept : Var(PP_VARTYPE_INT32) { var_.value.as_int = value; }
  Var(double value) noexcept : Var(PP_VARTYPE_DOUBLE) { var_.value.as_double = value; }
  Var(const char* utf8);  ///< NUL-terminated
  Var(const std::string& utf8);
  Var(PassRef, PP_Var var) noexcept : var_(var) {}        ///< takes over the reference of `var`
  explicit Var(const PP_Var& var) noexcept : var_(var) {  ///< adds a reference to the node of `var`
    if (is_counted()) AddReference();
  }

  Var(const Var& other) noexcept : Var(other.var_) {}
  Var(Var&& other) noexcept : var_(other.Detach()) {}
  Var& operator=(const Var& other) noexcept { return *this = Var(other); }
  Var& operator=(Var&& other) noexcept {
    Var taken(std::move(other));
    std::swap(var_, taken.var_);
    return *this;
  }
  ~Var() {
    if (is_counted()) DropReference();
  }

  PP_VarType type() const noexcept { return var_.type; }
  bool is_undefined() const noexcept { return var_.type == PP_VARTYPE_UNDEFINED; }
  bool is_null() const noexcept { return var_.type == PP_VARTYPE_NULL; }
  bool is_bool() const noexcept { return var_.type == PP_VARTYPE_BOOL; }
  bool is_int() const noexcept { return var_.type == PP_VARTYPE_INT32; }
  bool is_double() const noexcept { return var_.type == PP_VARTYPE_DOUBLE; }
  bool is_string() const noexcept { return var_.type == PP_VARTYPE_STRING; }
  bool is_array() const noexcept { return var_.type == PP_VARTYPE_ARRAY; }
  bool is_dictionary() const noexcept { return var_.type == PP_VARTYPE_DICTIONARY; }

  bool AsBool() const noexcept;         ///< false if it is not a bool
  std::int32_t AsInt() const noexcept;  ///< a double is truncated and clamped to 32 bits (NaN is 0); else 0
  double AsDouble() const noexcept;     ///< an int is converted; 0 if it is not a number
  std::string AsString() const;         ///< empty if it is not a string

  /// The variable itself; this object keeps the reference.
  const PP_Var& pp_var() const noexcept { return var_; }

  /// Releases the variable with its reference to the caller; this object is undefined afterwards.
  PP_Var Detach() noexcept { return std::exchange(var_, PP_Var{}); }

 protected:
  PP_Var var_;

 private:
  explicit Var(PP_VarType type) noexcept : var_{} { var_.type = type; }

  bool is_counted() const noexcept { return is_string() || is_array() || is_dictionary(); }
  void AddReference() const noexcept;
  void DropReference() noexcept;
};

}  // namespace pp
