#pragma once

#include <string>

/// A menu setting.
struct MenuValue {
  int iValue = 0;      ///< the number, as the store holds it
  std::string sValue;  ///< the text; filled for the voice guide's speed alone
};

/// Reads and writes menu settings by key number, and holds every exception that a single key makes.
///
/// Operations answer with a `ResultCode`. The object has no data: all state lies in the store, and any thread may call
/// it. No lock spans two calls.
///
/// A write goes `getMenuValue`, `confirmMenuValue` on the record that it filled, `setMenuValue` with that same record.
/// Only `getMenuValue` tests the key; the others take none that it has not accepted.
class MenuValueManager {
 public:
  /// Reads the current setting of `key` into `value`. RESULT_INVALID_VALUE: no such key; RESULT_NOT_SUPPORTED: a key
  /// that is not served (`value` is untouched); RESULT_FAILED: the store refused.
  int getMenuValue(unsigned int key, MenuValue& value);

  /// Turns `confirmed`, which comes in holding the current setting, into what is to be written when `value` is
  /// requested. RESULT_INVALID_VALUE: the key's item list does not hold `value`; RESULT_FAILED: there is no such list;
  /// RESULT_NOT_SUPPORTED: a key that is not served. On failure `confirmed` is untouched.
  int confirmMenuValue(unsigned int key, MenuValue value, MenuValue& confirmed);

  /// Copies `value` into `confirmed` when the item list `menuId` holds its number; results as `confirmMenuValue`.
  int setMenuWithMenuID(std::string menuId, MenuValue value, MenuValue& confirmed);

  /// Writes the number of `value` and makes it durable. RESULT_FAILED: the store refused and nothing was written.
  int setMenuValue(unsigned int key, MenuValue value);
};
