#pragma once

#include <string>

#include "ppapi/cpp/instance_handle.h"
#include "ppapi/cpp/var.h"

namespace pp {

/// The embedder's private interface, for one instance. A failure gives an undefined variable or an empty text. Only one
/// thread at a time may use an object. The constructor and the destructor make no call.
class ExtensionSystemNorvika {
 public:
  explicit ExtensionSystemNorvika(const InstanceHandle& handle);

  /// Makes the embedder perform the operation of this name, and blocks until it replies. Returns undefined if the
  /// embedder does not offer the interface, or if the operation failed.
  Var GenericSyncCall(const Var& operation_name, const Var& operation_data);

  /// Empty if the embedder does not offer the interface or has no name.
  std::string GetEmbedderName() const;

  /// The embedder's information about the running extension, unchanged.
  Var GetCurrentExtensionInfo();

 private:
  InstanceHandle handle_;
};

}  // namespace pp
