#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ppapi/cpp/var.h"

namespace pp {

/// A variable of type dictionary: texts to variables. Copies share the content.
class VarDictionary : public Var {
 public:
  VarDictionary();                         ///< a new, empty dictionary
  explicit VarDictionary(const Var& var);  ///< shares `var` when it is a dictionary, else a new one

  /// The value under `key`, undefined when there is none.
  Var Get(std::string_view key) const;
  bool HasKey(std::string_view key) const;
  /// Sets the value of `key`, replacing an existing one. A dictionary must not contain itself.
  void Set(std::string_view key, const Var& value);
  /// The keys in byte order.
  std::vector<std::string> GetKeys() const;
};

}  // namespace pp
