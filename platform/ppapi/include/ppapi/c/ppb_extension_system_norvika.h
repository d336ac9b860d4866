#pragma once

#include <cstdint>

#include "ppapi/c/pp_var.h"

/// The name under which the embedder offers its private interface.
#define PPB_EXTENSIONSYSTEM_NORVIKA_INTERFACE_0_1 "PPB_ExtensionSystem_Norvika;0.1"

/// The embedder's private interface. The record belongs to the embedder and lives as long as the process. A `PP_Var`
/// that comes out of a call carries a reference that passes to the caller; one that goes in stays the caller's.
struct PPB_ExtensionSystem_Norvika_0_1 {
  /// The embedder's name, a string.
  PP_Var (*GetEmbedderName)(PP_Instance instance);

  /// Information on the running extension, of whatever type the embedder chooses.
  PP_Var (*GetCurrentExtensionInfo)(PP_Instance instance);

  /// Carries out the operation that `operation_name` (a string) names, on `operation_data`, and returns when it is
  /// done: 0 with the answer in `*result`, or another number for a failure, and `*result` then means nothing.
  std::int32_t (*GenericSyncCall)(PP_Instance instance, PP_Var operation_name, PP_Var operation_data, PP_Var* result);
};
