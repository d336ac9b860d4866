#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "database.h"
#include "folder.h"
#include "region.h"

/// Opening, making, converting and replacing the files of a store. The database is the store; the first process after a
/// boot makes the region from it. One process at a time makes or replaces files.
namespace vconf::making {

/// The region of a store, and the folder of its files.
struct Place {
  Folder folder;
  std::unique_ptr<Region> region;
};

/// The store of `directory`. Its region is made unless there is one of this boot. Where there is no folder, or an empty
/// one, a store that holds `initial` is made, unless `initial` is null.
Result<std::unique_ptr<Place>> Attach(const std::string& directory, const std::vector<Entry>* initial);

/// The store of `folder` when its region is there and of this boot; `kMissing` otherwise.
Result<std::unique_ptr<Place>> AttachShared(Folder folder);

/// As `ReplaceStore` of the control side.
Result<std::string> Replace(const std::string& directory, const std::vector<Entry>& initial);

/// The keys on disk of a store that was made by a version before this one. `visit` is called for each.
Status ReadOldStore(const Folder& folder, const std::function<void(Row)>& visit);

}  // namespace vconf::making
