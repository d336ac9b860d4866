#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "database.h"
#include "journal.h"
#include "table.h"

/// Several changes that are made together.
namespace vconf {

/// Prepares all of `rows`, or none. With the region's lock held.
Code PrepareAll(Table& table, const std::vector<Row>& rows, std::vector<std::uint32_t>* keys);

using Wanted = std::map<std::string, Value, std::less<>>;

/// Appends what makes `held` hold what `wanted` does, and nothing else.
void Difference(const std::vector<Entry>& held, const Wanted& wanted, std::vector<Row>* rows);

}  // namespace vconf
