#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "harness.h"

namespace bench {

/// What a growth measurement gives: a plot, and lines of the table where a goal goes with it.
struct Growth {
  std::vector<Series> series;
  std::vector<Row> rows;
};

/// The program that prints, for each number of instances on the curve, the KiB of memory that each of them takes. A new
/// process, since an older one has freed memory that it would give them first.
int RunInstances();

Growth GrowInstances(const Effort& effort);
Growth GrowSubscribers(const Effort& effort);
Growth GrowSubscriptions(const Effort& effort);
Growth GrowKeys(const Effort& effort);
Growth GrowMessages(const Effort& effort);

}  // namespace bench
