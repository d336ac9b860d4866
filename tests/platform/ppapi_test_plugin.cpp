// The plug-in of ppapi_browser_test.cpp. It does nothing itself except to post the parameters that it gets.

#include "ppapi_test_plugin.h"

#include <string>

#include "ppapi/cpp/module.h"

namespace {

const TestPluginHooks& Hooks() {
  return *static_cast<const TestPluginHooks*>(pp::Module::Get()->GetBrowserInterface(TestPluginHooks::kInterface));
}

class TestInstance : public pp::Instance {
 public:
  explicit TestInstance(PP_Instance instance) : pp::Instance(instance) { Hooks().on_created(this); }
  TestInstance(const TestInstance&) = delete;
  TestInstance& operator=(const TestInstance&) = delete;
  ~TestInstance() override { Hooks().on_destroyed(); }

  bool Init(std::uint32_t argc, const char* argn[], const char* argv[]) override {
    for (std::uint32_t i = 0; i < argc; ++i) PostMessage(std::string(argn[i]) + "=" + argv[i]);
    return Hooks().init_result;
  }
};

class TestModule : public pp::Module {
 public:
  pp::Instance* CreateInstance(PP_Instance instance) override { return new TestInstance(instance); }
};

}  // namespace

namespace pp {

Module* CreateModule() { return new TestModule; }

}  // namespace pp
