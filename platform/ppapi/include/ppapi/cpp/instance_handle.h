#pragma once

#include "ppapi/c/pp_var.h"

namespace pp {

class Instance;

/// Identifies an instance. A plain value.
class InstanceHandle {
 public:
  explicit InstanceHandle(PP_Instance pp_instance) noexcept : pp_instance_(pp_instance) {}
  InstanceHandle(Instance* instance) noexcept;
  PP_Instance pp_instance() const noexcept { return pp_instance_; }

 private:
  PP_Instance pp_instance_;
};

}  // namespace pp
