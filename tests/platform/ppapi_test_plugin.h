#pragma once

#include <functional>

#include "ppapi/cpp/instance.h"

/// What a test does in the place of the plug-in that it loads; the plug-in finds it as a browser interface.
struct TestPluginHooks {
  static constexpr char kInterface[] = "TestPluginHooks";

  std::function<void(pp::Instance*)> on_created;  ///< in the instance's constructor
  std::function<void()> on_destroyed;             ///< in its destructor
  bool init_result = true;
};
