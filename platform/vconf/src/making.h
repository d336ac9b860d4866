#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "database.h"
#include "folder.h"
#include "region.h"

/// How a store comes to be in its folder: made, found, migrated, replaced. The database is the store; the region is
/// made from it by the first process after a boot. One process at a time makes or replaces something.
namespace vconf::making {

/// A region, and the folder where it stands.
struct Place {
  Folder folder;
  std::unique_ptr<Region> region;
};

/// The store of `directory`, whose region is made when there is none of this boot. A directory that is missing or empty
/// becomes a store that holds `initial`, unless that is null.
Result<std::unique_ptr<Place>> Attach(const std::string& directory, const std::vector<Entry>* initial);

/// The store of `folder` when its region is there and of this boot; `kMissing` otherwise.
Result<std::unique_ptr<Place>> AttachShared(Folder folder);

/// As `ReplaceStore` of the control side.
Result<std::string> Replace(const std::string& directory, const std::vector<Entry>& initial);

/// The keys on disk of a store that was made by a version before this one. `visit` is called for each.
Status ReadOldStore(const Folder& folder, const std::function<void(Row)>& visit);

}  // namespace vconf::making
