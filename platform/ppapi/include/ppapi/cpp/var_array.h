#pragma once

#include <cstdint>

#include "ppapi/cpp/var.h"

namespace pp {

/// A variable of type array. Copies share the content.
class VarArray : public Var {
 public:
  VarArray();                         ///< a new, empty array
  explicit VarArray(const Var& var);  ///< shares `var` when it is an array, else a new one

  /// The value at `index`, undefined beyond the end.
  Var Get(std::uint32_t index) const;
  /// Puts `value` at `index`; an index beyond the end grows the array with undefined values.
  void Set(std::uint32_t index, const Var& value);
  std::uint32_t GetLength() const;
};

}  // namespace pp
