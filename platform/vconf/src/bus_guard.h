#pragma once

#include <cstddef>

/// What stands between a process and a file that is cut short, or that the disk fails to read, while it is mapped.
///
/// The kernel answers a touch of such a page with SIGBUS. In a guarded range the whole range then becomes zeros of this
/// process alone, and the touch goes on; its reader has to see that zeros are not what it looks for. A signal from
/// elsewhere goes to the handler that was there before.
namespace vconf::bus_guard {

/// Any thread. False when there are too many ranges.
bool Guard(void* begin, std::size_t size);
void Release(void* begin);

}  // namespace vconf::bus_guard
