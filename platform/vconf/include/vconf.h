#pragma once

/// The platform's key-value store.
///
/// A key is a path that begins with `db/` (kept on disk) or `memory/` (gone when the set is switched off). It keeps the
/// type that it was first written with. Every function may be called on any thread.

extern "C" {

/// What a change callback is handed. The record belongs to the store and lives for the call.
struct _keynode_t {
  const char* keyname;  ///< the NUL-terminated path of the key that changed
};
using keynode_t = _keynode_t;

/// Called once for each change of a subscribed key, in the order of the changes, on the store's notification thread. A
/// process that has fallen further behind than the store remembers is called once for each subscribed key instead. It
/// must not throw.
using vconf_callback_fn = void (*)(keynode_t* node, void* user_data);

/// Read a key. Returns 0 and sets the int, which must be there (0 or 1 for a bool); another result is a failure: no
/// such key, a key of another type, or a store that cannot be read. The int is then untouched.
int vconf_get_int(const char* path, int* value);
int vconf_get_bool(const char* path, int* value);

/// Write a key. Returns 0 when the value is visible to every process; another result is a failure that changed
/// nothing. A write may be lost with the power until `vconf_sync_key`.
int vconf_set_int(const char* path, int value);
int vconf_set_bool(const char* path, int value);

/// Makes a `db/` key durable before it returns; has nothing to do for `memory/`. Returns 0 or a negative number.
int vconf_sync_key(const char* path);

/// Subscribes `callback` to the changes of `path` that come after this call, by whatever process. The key need not
/// exist. Who subscribes the same again is called once for each subscription. Returns 0 or more, or a negative number
/// when nothing was subscribed.
int vconf_notify_key_changed(const char* path, vconf_callback_fn callback, void* user_data);

/// Ends every subscription of this process of the pair `path` and `callback`, whatever its user data: two parts of a
/// process that share a callback end each other's. Returns 0 or more when none is left, also when there was none; what
/// this call ended is then not running any more (unless the call comes from that callback itself). Returns a negative
/// number when the store refused.
int vconf_ignore_key_changed(const char* path, vconf_callback_fn callback);
}
