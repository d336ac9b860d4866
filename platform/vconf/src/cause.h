#pragma once

#include <string>

#include "result.h"

namespace vconf {

/// How a step on the store ended: 0, an error of LMDB (below -30000), an errno (above 0), or one of these.
using Cause = int;

constexpr Cause kOk = 0;
constexpr Cause kBadPath = -1;    ///< no path that the store serves
constexpr Cause kBadValue = -2;   ///< a text that is too long
constexpr Cause kOtherType = -3;  ///< the key holds a value of another type
constexpr Cause kNoMemory = -4;   ///< the memory file system gave no store
constexpr Cause kReadOnly = -5;   ///< this process may not write the store
constexpr Cause kDamaged = -6;    ///< what stands in the file cannot be what was written
constexpr Cause kGone = -7;       ///< the file was removed or replaced while it was in use
constexpr Cause kNoStore = -8;    ///< this process has no store open
constexpr Cause kFormat = -9;     ///< the store was written in another format
extern const Cause kNoKey;

/// The cause in words, and what it is for a program.
std::string CauseText(Cause cause);
Code CodeOf(Cause cause);

/// The same for a caller of the control side; `about` is the file or the path that it has to do with.
Status ToStatus(Cause cause, const std::string& about);

}  // namespace vconf
