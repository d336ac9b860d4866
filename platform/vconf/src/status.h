#pragma once

#include <string>

namespace vconf {

/// The result of a step on the store: 0, an error of LMDB (below -30000), an errno (above 0), or one of these.
using Status = int;

constexpr Status kOk = 0;
constexpr Status kBadPath = -1;    ///< no path that the store serves
constexpr Status kBadValue = -2;   ///< a text that is too long
constexpr Status kOtherType = -3;  ///< the key holds a value of another type
constexpr Status kNoMemory = -4;   ///< the memory file system gave no store
constexpr Status kReadOnly = -5;   ///< this process may not write the store
constexpr Status kDamaged = -6;    ///< what stands in the file cannot be what was written
constexpr Status kGone = -7;       ///< the file was removed or replaced while it was in use
constexpr Status kNoStore = -8;    ///< this process has no store open
constexpr Status kFormat = -9;     ///< the store was written in another format
extern const Status kNoKey;

/// The status in words.
std::string StatusText(Status status);

}  // namespace vconf
