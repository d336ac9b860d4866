#pragma once

#include <cstdint>

#include "ppapi/c/pp_var.h"

/// The name under which the embedder offers its private interface.
#define PPB_EXTENSIONSYSTEM_NORVIKA_INTERFACE_0_1 "PPB_ExtensionSystem_Norvika;0.1"

/// The embedder's private interface. The record belongs to the embedder and lives as long as the process. The caller
/// owns the reference of a returned `PP_Var`, and keeps that of an argument.
struct PPB_ExtensionSystem_Norvika_0_1 {
  /// The embedder's name, a string.
  PP_Var (*GetEmbedderName)(PP_Instance instance);

  /// Information on the running extension, of a type that the embedder chooses.
  PP_Var (*GetCurrentExtensionInfo)(PP_Instance instance);

  /// Carries out the operation that `operation_name` (a string) names, on `operation_data`, and returns when it is
  /// done: 0 with the answer in `*result`, or another number for a failure; `*result` is then undefined.
  std::int32_t (*GenericSyncCall)(PP_Instance instance, PP_Var operation_name, PP_Var operation_data, PP_Var* result);
};
