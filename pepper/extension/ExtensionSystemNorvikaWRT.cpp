#include "ExtensionSystemNorvikaWRT.h"

namespace pp {

ExtensionSystemNorvikaWRT::ExtensionSystemNorvikaWRT(const InstanceHandle& handle)
    : ExtensionSystemNorvikaOstra(handle) {}

bool ExtensionSystemNorvikaWRT::IsValid() const {
  static const bool valid = GetEmbedderName() == "OstraWRT";
  return valid;
}

}  // namespace pp
