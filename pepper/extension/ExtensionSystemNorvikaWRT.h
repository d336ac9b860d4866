#pragma once

#include <map>
#include <string>

#include "ExtensionSystemNorvikaOstra.h"
#include "ppapi/cpp/var.h"

namespace pp {

/// The embedder as the set's web runtime.
class ExtensionSystemNorvikaWRT : public ExtensionSystemNorvikaOstra {
 public:
  explicit ExtensionSystemNorvikaWRT(const InstanceHandle& handle);

  /// Whether the embedder is the set's web runtime, by its name. It is asked at the first call in the process.
  bool IsValid() const;

 private:
  std::map<std::string, Var> attributes_;  // kept for the runtime's own extensions; no operation here uses it
};

}  // namespace pp
