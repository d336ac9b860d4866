#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "ExtensionSystemNorvika.h"

namespace pp {

/// Operations of the embedder. If an operation fails, or its reply has the wrong type, the function returns the default
/// that its comment names.
class ExtensionSystemNorvikaOstra : public ExtensionSystemNorvika {
 public:
  explicit ExtensionSystemNorvikaOstra(const InstanceHandle& handle);

  /// Whether the application has `privilege`, a string; false by default, and if it is not a string. The embedder is
  /// asked once for each string, and the result is kept, also that of a failure.
  bool CheckPrivilege(const Var& privilege);

  /// The application's window, -1 by default.
  std::int32_t GetWindowId();

  /// Switches the input method's recommended words on or off, and passes them to it; false by default.
  bool SetIMERecommendedWordsType(bool should_enable);
  bool SetIMERecommendedWords(const Var& words);

 private:
  bool BoolCall(const char* operation_name, const Var& operation_data);

  std::map<std::string, bool> privilegeCache;
};

}  // namespace pp
