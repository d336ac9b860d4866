#pragma once

extern "C" {

/// Reads a custom feature of the set.
///
/// `key`    the feature's name, such as "com.norvika/featureconf/product.b2b_option_support".
/// `value`  gets the value; not changed on failure.
///
/// Returns 0, or a negative number if the set does not know the feature. Any thread.
int system_info_get_custom_bool(const char* key, bool* value);
}
