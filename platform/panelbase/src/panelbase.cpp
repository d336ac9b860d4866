#include "panelbase.h"

#include <optional>
#include <string>
#include <variant>

#include "panelbase_control.h"
#include "vconf_control.h"

namespace {

constexpr int kFailed = -1;

std::optional<int> StoredPictureSize() {
  static const std::string path = panelbase::kPictureSizePath;
  const vconf::Result<vconf::Value> stored = vconf::Get(path);
  const int* size = stored.ok() ? std::get_if<int>(&*stored) : nullptr;
  return size != nullptr ? std::optional(*size) : std::nullopt;
}

class MainVideoControl final : public IVideoControl {
 public:
  int GetPictureSize(int* size) override {
    if (size == nullptr) return kFailed;
    if (const auto fault = vconf::TakeFault("GetPictureSize", "")) return *fault;
    // The set may lose its picture after it has returned the control.
    const std::optional<int> stored = StoredPictureSize();
    if (!stored) return kFailed;
    *size = *stored;
    return 0;
  }
};

}  // namespace

int Panelbase::CreateVideoControl(EProfile profile, int display, IVideoControl** control) {
  if (profile != PROFILE_MAIN || display != 0 || control == nullptr) return kFailed;
  if (const auto fault = vconf::TakeFault("CreateVideoControl", "")) return *fault;
  if (!StoredPictureSize()) return kFailed;
  // Callers drop the pointer without freeing it, so all of them share one stateless control.
  static MainVideoControl main_control;
  *control = &main_control;
  return 0;
}
