#pragma once

#include <cstddef>

/// Protects a process from SIGBUS when a mapped file is truncated, or the disk fails to read it.
///
/// On an access to a missing page of a guarded range, the whole range is replaced by zeros, for this process only, and
/// the access continues; the reader has to detect that zeros are not valid. A SIGBUS for any other address goes to the
/// previous handler.
namespace vconf::bus_guard {

/// Any thread. False if 32 ranges are guarded already.
bool Guard(void* begin, std::size_t size);
void Release(void* begin);

}  // namespace vconf::bus_guard
