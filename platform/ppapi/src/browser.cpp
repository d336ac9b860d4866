// `browser::Plugin` loads a plug-in; `browser::PageInstance` connects one of its instances with its `Embedding`.
#include "browser_control.h"

#include <dlfcn.h>

#include "embedding.h"
#include "ppapi/cpp/instance.h"
#include "ppapi/cpp/module.h"

namespace pp::browser {
namespace {

class ConnectedInstance final : public PageInstance {
 public:
  explicit ConnectedInstance(std::shared_ptr<Embedding> embedding) : embedding_(std::move(embedding)) {}
  ConnectedInstance(const ConnectedInstance&) = delete;
  ConnectedInstance& operator=(const ConnectedInstance&) = delete;
  ~ConnectedInstance() override { ConnectedInstance::Destroy(); }

  /// Creates the plug-in's side. False on failure.
  bool Create(Module* module, const std::vector<std::pair<std::string, std::string>>& arguments) {
    instance_.reset(module->CreateInstance(embedding_->id()));
    if (!instance_) return false;
    std::vector<const char*> names;
    std::vector<const char*> values;
    for (const auto& [name, value] : arguments) {
      names.push_back(name.c_str());
      values.push_back(value.c_str());
    }
    return instance_->Init(static_cast<std::uint32_t>(arguments.size()), names.data(), values.data());
  }

  PP_Instance id() const override { return embedding_->id(); }
  Var Send(const Var& message) override { return embedding_->Send(message); }
  void Post(const Var& message) override { embedding_->Post(message); }
  void Settle() override { embedding_->Settle(); }
  void EndRegistration() override { embedding_->EndRegistration(); }

  void Destroy() override {
    // The handler gets messages until the instance itself ends its loop, and its posts meanwhile reach the page.
    instance_.reset();
    embedding_->Close();
  }

 private:
  const std::shared_ptr<Embedding> embedding_;
  std::unique_ptr<Instance> instance_;
};

struct CloseLibrary {
  void operator()(void* library) const noexcept { dlclose(library); }
};

class LoadedPlugin final : public Plugin {
 public:
  using Library = std::unique_ptr<void, CloseLibrary>;

  LoadedPlugin(Library library, std::unique_ptr<Module> module)
      : library_(std::move(library)), module_(std::move(module)) {}

  std::shared_ptr<PageInstance> CreateInstance(
      Listener listener, const std::vector<std::pair<std::string, std::string>>& arguments) override {
    auto instance = std::make_shared<ConnectedInstance>(Embedding::Make(std::move(listener)));
    return instance->Create(module_.get(), arguments) ? instance : nullptr;
  }

 private:
  const Library library_;  // the module's code, destroyed last
  const std::unique_ptr<Module> module_;
};

}  // namespace

vconf::Result<std::unique_ptr<Plugin>> Plugin::Load(const std::string& path) {
  const auto fail = [&](const std::string& cause) {
    // The loader's error texts usually begin with the path.
    return vconf::Status(vconf::Code::kFailed, cause.starts_with(path + ": ") ? cause : path + ": " + cause);
  };
  if (Module::Get() != nullptr) return fail("a plug-in is loaded already");
  LoadedPlugin::Library library(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!library) return fail(dlerror());
  void* const entry = dlsym(library.get(), "_ZN2pp12CreateModuleEv");
  if (entry == nullptr) return fail("no plug-in, it has no pp::CreateModule");
  std::unique_ptr<Module> module(reinterpret_cast<decltype(&CreateModule)>(entry)());
  if (!module) return fail("pp::CreateModule gave no module");
  if (!module->Init()) return fail("the module's Init failed");
  return std::unique_ptr<Plugin>(std::make_unique<LoadedPlugin>(std::move(library), std::move(module)));
}

}  // namespace pp::browser
