#pragma once

#include <string>

#include "ppapi/cpp/instance_handle.h"
#include "ppapi/cpp/var.h"

namespace pp {

/// The embedder's private interface, for one instance. A failure is told by value: an undefined variable or an empty
/// text. An object belongs to one thread at a time; construction and destruction make no call.
class ExtensionSystemNorvika {
 public:
  explicit ExtensionSystemNorvika(const InstanceHandle& handle);

  /// Has the embedder carry out the operation of that name and blocks until it answers. Undefined when the embedder
  /// does not offer the interface or the operation failed.
  Var GenericSyncCall(const Var& operation_name, const Var& operation_data);

  /// Empty when the embedder does not offer the interface or has no name.
  std::string GetEmbedderName() const;

  /// Information on the running extension, as the embedder gives it.
  Var GetCurrentExtensionInfo();

 private:
  InstanceHandle handle_;
};

}  // namespace pp
