#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "harness.h"

/// The curves in docs/performance.md: how a figure changes with the number of instances, subscribers, keys and so on.
namespace bench {

/// The result of a measurement: curves to plot, and rows of the table.
struct Growth {
  std::vector<Series> series;
  std::vector<Row> rows;
};

/// Prints, for each number of instances on the curve, the KiB of memory that each of them takes. Must run in a new
/// process: an older one has freed memory, which the instances would get first.
int RunInstances();

Growth GrowInstances(const Effort& effort);
Growth GrowSubscribers(const Effort& effort);
Growth GrowSubscriptions(const Effort& effort);
Growth GrowKeys(const Effort& effort);
Growth GrowMessages(const Effort& effort);

}  // namespace bench
