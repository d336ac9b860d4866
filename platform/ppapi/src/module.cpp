// `pp::Module` of this process, and the interfaces that the browser offers to it by name.
#include "ppapi/cpp/module.h"

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>

#include "browser_control.h"

namespace pp {
namespace {

std::atomic<Module*> g_module{nullptr};

struct Interfaces {
  std::mutex mutex;
  std::unordered_map<std::string, const void*> by_name;
};

Interfaces& BrowserInterfaces() {
  static Interfaces interfaces;
  return interfaces;
}

}  // namespace

Module::Module() { g_module = this; }

Module::~Module() { g_module = nullptr; }

Module* Module::Get() noexcept { return g_module; }

bool Module::Init() { return true; }

const void* Module::GetBrowserInterface(const char* interface_name) {
  Interfaces& interfaces = BrowserInterfaces();
  const std::lock_guard lock(interfaces.mutex);
  const auto found = interfaces.by_name.find(interface_name);
  return found != interfaces.by_name.end() ? found->second : nullptr;
}

void browser::RegisterBrowserInterface(const std::string& name, const void* interface) {
  Interfaces& interfaces = BrowserInterfaces();
  const std::lock_guard lock(interfaces.mutex);
  interfaces.by_name[name] = interface;
}

}  // namespace pp
