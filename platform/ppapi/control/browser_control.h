#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ppapi/c/pp_var.h"
#include "ppapi/cpp/var.h"
#include "result.h"

/// The browser's side of the plug-in interface, for a runtime.
///
/// The thread that loads the plug-in is its main thread; instances must be created and destroyed on it. Everything else
/// may be called on any thread.
namespace pp::browser {

/// Receives the messages that the plug-in posts to one page, on the posting thread, one call at a time for each
/// instance, in order. It must not destroy the instance, and must not wait with `Send`, `Settle` or `EndRegistration`
/// for the handler's loop, which may itself be waiting for the listener.
using Listener = std::function<void(const pp::Var&)>;

/// One embedding of the plug-in in a page.
///
/// A call that waits for the handler's loop does not wait on that loop's own thread (which includes a listener that the
/// handler calls there): `Send` returns an undefined variable, `Settle` and `EndRegistration` do nothing.
class PageInstance {
 public:
  /// Calls `Destroy`.
  virtual ~PageInstance() = default;

  virtual PP_Instance id() const = 0;

  /// The page's waiting call: returns the handler's result. Returns an undefined variable if no handler is registered,
  /// or if the registration ends or the instance is destroyed first; it never hangs.
  virtual pp::Var Send(const pp::Var& message) = 0;

  /// The page's call that does not wait. Messages of both kinds are handled in the order of the calls. A message that
  /// no handler can receive any more is dropped.
  virtual void Post(const pp::Var& message) = 0;

  /// Waits until all messages posted before the call have been handled or dropped.
  virtual void Settle() = 0;

  /// Ends the handler's registration: messages posted before are handled, then `WasUnregistered` runs on the loop, then
  /// this returns. Later messages are not handled. Does nothing without a registration.
  virtual void EndRegistration() = 0;

  /// Deletes the plug-in's instance. When it returns, the listener is not called any more, and every waiting `Send` has
  /// returned an undefined variable. A second call does nothing. Main thread.
  virtual void Destroy() = 0;
};

/// A loaded plug-in with its module initialised. One at a time in a process.
class Plugin {
 public:
  /// Loads the shared library `path`, calls its `pp::CreateModule` and the module's `Init`. A failure is `kFailed`, and
  /// its text names the file and the cause.
  static vconf::Result<std::unique_ptr<Plugin>> Load(const std::string& path);

  /// Deletes the module and unloads the library. All instances must have been destroyed.
  virtual ~Plugin() = default;

  /// Creates an instance; `arguments` are the embed element's names and values. Null if the module returned none or its
  /// `Init` returned false.
  virtual std::shared_ptr<PageInstance> CreateInstance(
      Listener listener, const std::vector<std::pair<std::string, std::string>>& arguments = {}) = 0;
};

/// Offers `interface` under `name` to `pp::Module::GetBrowserInterface`; null withdraws it. The caller
/// owns the record, which must outlive every plug-in that may have got it.
void RegisterBrowserInterface(const std::string& name, const void* interface);

/// Makes `pp::Instance::RegisterMessageHandler` return this result without registering anything; 0 makes it work again.
void SetRegisterMessageHandlerResult(std::int32_t result);

/// The number of live reference-counted variable nodes in this process.
std::int64_t LiveVarNodes();

}  // namespace pp::browser
