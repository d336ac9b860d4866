#pragma once

#include <functional>

#include "ppapi/cpp/instance.h"

/// Functions of a test that the loaded plug-in calls; the plug-in gets them as a browser interface.
struct TestPluginHooks {
  static constexpr char kInterface[] = "TestPluginHooks";

  std::function<void(pp::Instance*)> on_created;  ///< in the instance's constructor
  std::function<void()> on_destroyed;             ///< in its destructor
  bool init_result = true;
};
