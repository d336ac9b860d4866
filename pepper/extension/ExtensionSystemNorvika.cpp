#include "ExtensionSystemNorvika.h"

#include "ppapi/c/ppb_extension_system_norvika.h"
#include "ppapi/cpp/module.h"

namespace pp {
namespace {

/// The embedder's functions, or null. The browser is asked once in each process, also if it returns null.
const PPB_ExtensionSystem_Norvika_0_1* GetInterface() {
  static const auto* const interface = static_cast<const PPB_ExtensionSystem_Norvika_0_1*>(
      Module::Get()->GetBrowserInterface(PPB_EXTENSIONSYSTEM_NORVIKA_INTERFACE_0_1));
  return interface;
}

}  // namespace

ExtensionSystemNorvika::ExtensionSystemNorvika(const InstanceHandle& handle) : handle_(handle) {}

Var ExtensionSystemNorvika::GenericSyncCall(const Var& operation_name, const Var& operation_data) {
  const auto* interface = GetInterface();
  if (interface == nullptr) return Var();
  PP_Var result = Var().pp_var();
  const std::int32_t status =
      interface->GenericSyncCall(handle_.pp_instance(), operation_name.pp_var(), operation_data.pp_var(), &result);
  if (status != 0) return Var();
  return Var(PASS_REF, result);
}

std::string ExtensionSystemNorvika::GetEmbedderName() const {
  const auto* interface = GetInterface();
  if (interface == nullptr) return std::string();
  const Var name(PASS_REF, interface->GetEmbedderName(handle_.pp_instance()));
  return name.is_string() ? name.AsString() : std::string();
}

Var ExtensionSystemNorvika::GetCurrentExtensionInfo() {
  const auto* interface = GetInterface();
  if (interface == nullptr) return Var();
  return Var(PASS_REF, interface->GetCurrentExtensionInfo(handle_.pp_instance()));
}

}  // namespace pp
