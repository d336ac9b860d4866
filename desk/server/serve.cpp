#include "server/serve.h"

#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/exit_status.h"
#include "base/standard_streams.h"
#include "base/temporary_folder.h"
#include "dlog_control.h"
#include "server/desk.h"

namespace desk {
namespace {

int Fail(const std::string& error) {
  PrintError("mirado desk: " + error);
  return kCannotWork;
}

int Serve(const DeskOptions& options) {
  Desk desk(options);
  constexpr int kNoLogLines = 8;
  constexpr int kDefaultThreshold = 4;
  dlog::SetThreshold(kNoLogLines);  // the store would also log the text of the status
  const vconf::Status store = desk.OpenStore();
  dlog::SetThreshold(kDefaultThreshold);
  // The desk also starts on a damaged or removed store, because its page can replace the store.
  if (!store.ok() && store.code() != vconf::Code::kDamaged && store.code() != vconf::Code::kRemoved) {
    return Fail(store.text());
  }
  if (const vconf::Status started = desk.Start(); !started.ok()) {
    return Fail(started.text());
  }
  std::string_view name = "Mirado desk: ";
  for (const std::string& link : desk.Links()) {
    std::cout << std::exchange(name, ", and ") << link;
  }
  std::cout << "\nThe set is kept in " << options.store << "; Ctrl-C ends the desk"
            << (options.temporary ? " and removes the set.\n" : ".\n");
  if (!std::cout.flush()) {
    return kCannotWork;  // without the links nobody can use the desk; `WithCheckedOutput` prints why
  }
  if (!store.ok()) {
    PrintError("mirado desk: " + store.text());
  }
  return desk.Run();
}

}  // namespace

int ServeDesk(DeskOptions options) {
  try {
    std::optional<TemporaryFolder> folder;
    if (options.temporary) {
      if (!folder.emplace("mirado-set").status().ok()) {
        return Fail(folder->status().text());
      }
      options.store = folder->path() / "store";
    }
    const int status = Serve(options);
    vconf::CloseStore();
    return status;
  } catch (const std::exception& error) {
    return Fail(std::string(error.what()) + "; are the limits of this process too low (ulimit -a)?");
  }
}

}  // namespace desk
