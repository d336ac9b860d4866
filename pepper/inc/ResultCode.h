#pragma once

/// The result of an operation. The numbers are the codes in replies to the page.
enum ResultCode : int {
  RESULT_OK = 0,
  RESULT_NOT_SUPPORTED = 9,
  RESULT_NO_PRIVILEGE = 18,
  RESULT_INVALID_VALUE = 26,
  RESULT_FAILED = 9999,  ///< a platform call failed
};
