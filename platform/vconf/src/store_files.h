#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "database.h"
#include "folder.h"
#include "region.h"

/// Opens, creates, converts and replaces the files of a store. The database is the store; the first process after a
/// boot creates the region from it. One process at a time creates or replaces files.
namespace vconf::store_files {

/// An open store: the folder of its files, and its region.
struct Opened {
  Folder folder;
  std::unique_ptr<Region> region;
};

/// Opens the store in `directory`, and creates its region if there is none of this boot. If the folder does not exist
/// or is empty, creates a store with `initial`, unless `initial` is null. A process that may not create a region gets a
/// private one, or `kMissing` if it may not be private.
Result<Opened> Attach(const std::string& directory, const std::vector<Entry>* initial, bool may_be_private = true);

/// See `ReplaceStore` in vconf_control.h.
Result<std::string> Replace(const std::string& directory, const std::vector<Entry>& initial);

/// Calls `visit` for each key on disk of a store of the previous version.
Status ReadOldStore(const Folder& folder, const std::function<void(Row)>& visit);

}  // namespace vconf::store_files
