#pragma once

#include <map>
#include <string>

#include "ExtensionSystemNorvikaOstra.h"
#include "ppapi/cpp/var.h"

namespace pp {

/// The embedder, if it is the set's web runtime.
class ExtensionSystemNorvikaWRT : public ExtensionSystemNorvikaOstra {
 public:
  explicit ExtensionSystemNorvikaWRT(const InstanceHandle& handle);

  /// Whether the embedder has the name of the set's web runtime. Determined at the first call in the process.
  bool IsValid() const;

 private:
  std::map<std::string, Var> attributes_;  // for extensions of the runtime; not used by the plug-in
};

}  // namespace pp
