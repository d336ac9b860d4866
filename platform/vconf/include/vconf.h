#pragma once

/// The platform's key-value store.
///
/// A key is a path that begins with `db/` (kept on disk) or `memory/` (lost when the set is switched off). It keeps the
/// type of its first value. Every function may be called on any thread.

extern "C" {

/// The argument of a change callback. The store owns the record, which is valid during the call.
struct _keynode_t {
  const char* keyname;  ///< the NUL-terminated path of the key that changed
};
using keynode_t = _keynode_t;

/// Called once for each change of a subscribed key, in the order of the changes, on the store's notification thread. If
/// the process is further behind than the changes that the store keeps, it is called once for each subscribed key
/// instead. It must not throw.
using vconf_callback_fn = void (*)(keynode_t* node, void* user_data);

/// Reads a key. Returns 0 and sets `*value` (0 or 1 for a bool); `value` must not be null. Any other result is a
/// failure: no such key, a key of another type, or a store that cannot be read. `*value` is then unchanged.
int vconf_get_int(const char* path, int* value);
int vconf_get_bool(const char* path, int* value);

/// Writes a key. Returns 0 when the value is visible to every process; after any other result nothing has changed. A
/// power cut before `vconf_sync_key` may lose the write.
int vconf_set_int(const char* path, int value);
int vconf_set_bool(const char* path, int value);

/// Makes a `db/` key durable before it returns; does nothing for `memory/`. Returns 0 or a negative number.
int vconf_sync_key(const char* path);

/// Subscribes `callback` to changes of `path` by any process after this call. The key need not exist. If the same
/// callback is subscribed twice, it is called once for each subscription. Returns 0 or more, or a negative number on
/// failure.
int vconf_notify_key_changed(const char* path, vconf_callback_fn callback, void* user_data);

/// Ends every subscription of this process for the pair `path` and `callback`, whatever its user data: if two parts of
/// a process share a callback, each also ends the other's subscriptions. Returns 0 or more when none is left, also when
/// there was none; no call of an ended subscription is then running (unless this is called from that callback itself).
/// Returns a negative number if the store refused.
int vconf_ignore_key_changed(const char* path, vconf_callback_fn callback);
}
