#pragma once

#include "harness.h"

/// The curves in docs/performance.md: how a figure changes with the number of instances, subscribers, keys and so on.
namespace bench {

/// Prints, for each number of instances on the curve, the KiB of memory that each of them takes. Must run in a new
/// process: an older one has freed memory, which the instances would get first.
int RunInstances();

Figures GrowInstances(const Effort& effort);
Figures GrowSubscribers(const Effort& effort);
Figures GrowSubscriptions(const Effort& effort);
Figures GrowKeys(const Effort& effort);
Figures GrowMessages(const Effort& effort);

}  // namespace bench
