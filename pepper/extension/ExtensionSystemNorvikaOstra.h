#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "ExtensionSystemNorvika.h"

namespace pp {

/// The named operations of the embedder. A failed call, or a reply of another type than the operation's, gives the
/// default that each names.
class ExtensionSystemNorvikaOstra : public ExtensionSystemNorvika {
 public:
  explicit ExtensionSystemNorvikaOstra(const InstanceHandle& handle);

  /// Whether the application holds `privilege`, a string; false by default and for a variable of another type. The
  /// embedder is asked once for each text, whatever it answers.
  bool CheckPrivilege(const Var& privilege);

  /// The application's window, -1 by default.
  std::int32_t GetWindowId();

  /// Switches the input method's recommended words on or off, or hands them over; false by default.
  bool SetIMERecommendedWordsType(bool should_enable);
  bool SetIMERecommendedWords(const Var& words);

 private:
  bool BoolCall(const char* operation_name, const Var& operation_data);

  std::map<std::string, bool> privilegeCache;
};

}  // namespace pp
