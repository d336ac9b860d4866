#pragma once

extern "C" {

/// Reads a custom feature of the set.
///
/// `key`    the feature's name, such as "com.norvika/featureconf/product.b2b_option_support".
/// `value`  receives the answer; untouched on failure.
///
/// Returns 0 and sets `*value`, or a negative number when the set has no answer. Any thread.
int system_info_get_custom_bool(const char* key, bool* value);
}
