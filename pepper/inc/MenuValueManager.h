#pragma once

#include <string>

/// The value of a menu setting.
struct MenuValue {
  int iValue = 0;      ///< the number, as the store holds it
  std::string sValue;  ///< the name of the voice guide's speed; empty for all other settings
};

/// Reads and writes menu settings by key number. All rules that apply to single keys only are here.
///
/// The functions return a `ResultCode`. The object has no data, because all state is in the store; any thread may call
/// it. No lock is held between two calls.
///
/// A write takes three calls: `getMenuValue`, `confirmMenuValue` with the value that it has filled in, and
/// `setMenuValue` with the result. Only `getMenuValue` checks the key; the others may be called only with a key that it
/// has accepted.
class MenuValueManager {
 public:
  /// Reads the setting of `key` into `value`. RESULT_INVALID_VALUE: there is no such key; RESULT_NOT_SUPPORTED: the key
  /// cannot be read (in both cases `value` is not changed); RESULT_FAILED: the store could not read it.
  int getMenuValue(unsigned int key, MenuValue& value);

  /// Changes `confirmed` from the current setting into the one to be written if a page requests `value`.
  /// RESULT_INVALID_VALUE: `value` is not in the key's item list; RESULT_FAILED: there is no such list;
  /// RESULT_NOT_SUPPORTED: the key cannot be written. On failure `confirmed` is not changed.
  int confirmMenuValue(unsigned int key, MenuValue value, MenuValue& confirmed);

  /// Copies `value` to `confirmed` if its number is in the item list `menuId`. Results as for `confirmMenuValue`.
  int setMenuWithMenuID(std::string menuId, MenuValue value, MenuValue& confirmed);

  /// Writes the number of `value` and asks the store to make it durable. RESULT_FAILED: the write failed.
  int setMenuValue(unsigned int key, MenuValue value);
};
