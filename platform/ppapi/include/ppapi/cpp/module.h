#pragma once

#include "ppapi/c/pp_var.h"

namespace pp {

class Instance;

/// The plug-in's one module object.
class Module {
 public:
  Module();
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  virtual ~Module();

  /// The module of this process, or null if none is loaded.
  static Module* Get() noexcept;

  /// Called once after the module was created; false aborts loading.
  virtual bool Init();

  /// Creates the plug-in's side of a new embedding; the caller owns it.
  virtual Instance* CreateInstance(PP_Instance instance) = 0;

  /// The record that the browser offers under `interface_name`, or null. The browser owns the record. Any thread.
  const void* GetBrowserInterface(const char* interface_name);
};

/// The plug-in's entry point, which every plug-in defines: a new module, owned by the caller.
__attribute__((visibility("default"))) Module* CreateModule();

}  // namespace pp
