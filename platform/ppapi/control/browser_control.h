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

/// The browser's side of the plug-in interface: what a runtime drives.
///
/// The thread that loads the plug-in is its main thread; it alone creates and destroys instances. Everything else may
/// be called on any thread.
namespace pp::browser {

/// Takes what the plug-in posts to one page, on the poster's thread, one call at a time for each instance, in order.
/// It must not destroy the instance, and not wait with `Send`, `Settle` or `EndRegistration` for the handler's loop,
/// which may itself be waiting for the listener.
using Listener = std::function<void(const pp::Var&)>;

/// One embedding of the plug-in in a page.
///
/// A call that waits for the handler's loop does not wait on that loop's own thread (which includes a listener that the
/// handler calls there): `Send` answers an undefined variable, `Settle` and `EndRegistration` do nothing.
class PageInstance {
 public:
  /// As `Destroy`.
  virtual ~PageInstance() = default;

  virtual PP_Instance id() const = 0;

  /// The page's waiting call: returns what the handler returned. Returns an undefined variable when no handler is
  /// registered, when the registration ends or the instance goes away first; it never hangs.
  virtual pp::Var Send(const pp::Var& message) = 0;

  /// The page's call that does not wait. Messages of both kinds are handled in the order of the calls. A message that
  /// no handler can take any more is dropped.
  virtual void Post(const pp::Var& message) = 0;

  /// Returns when all messages posted before the call have been handled, or can't be any more.
  virtual void Settle() = 0;

  /// Ends the handler's registration: what was posted before is handled, then `WasUnregistered` runs on the loop, then
  /// this returns. Nothing is handled afterwards. Without a registration it does nothing.
  virtual void EndRegistration() = 0;

  /// Deletes the plug-in's instance. When it returns, the listener runs no more, and every page that still waited got
  /// an undefined variable. A second call does nothing. Main thread.
  virtual void Destroy() = 0;
};

/// A plug-in in this process, its module initialised. One at a time.
class Plugin {
 public:
  /// Loads the shared library `path`, calls its `pp::CreateModule` and the module's `Init`. A failure is `kFailed`, and
  /// its text names the file and the cause.
  static vconf::Result<std::unique_ptr<Plugin>> Load(const std::string& path);

  /// Deletes the module and unloads the library. All instances must have been destroyed.
  virtual ~Plugin() = default;

  /// Makes an instance; `arguments` are the embed element's names and values. Null when the module gave none or its
  /// `Init` returned false.
  virtual std::shared_ptr<PageInstance> CreateInstance(
      Listener listener, const std::vector<std::pair<std::string, std::string>>& arguments = {}) = 0;
};

/// Offers `interface` under `name` to `pp::Module::GetBrowserInterface`; null takes the offer back. The record stays
/// the caller's and must outlive every plug-in that may have asked for it.
void RegisterBrowserInterface(const std::string& name, const void* interface);

/// What `pp::Instance::RegisterMessageHandler` answers from now on without registering anything; 0 lets it work.
void SetRegisterMessageHandlerResult(std::int32_t result);

/// Counted variable nodes alive in this process.
std::int64_t LiveVarNodes();

}  // namespace pp::browser
