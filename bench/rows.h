#pragma once

#include <string>
#include <vector>

#include "harness.h"

namespace bench {

// Messages: the way of a request and its reply.
std::vector<Row> WarmRow(const Effort& effort);
std::vector<Row> ParkedRow(const Effort& effort);
std::vector<Row> DbusRow(const Effort& effort);
std::vector<Row> WorkRows(const Effort& effort);

// The store: writes and the events that follow from them.
std::vector<Row> WriteRow(const Effort& effort);
std::vector<Row> EventRows(const Effort& effort);
std::vector<Row> DconfRows(const Effort& effort);
std::vector<Row> ReadRow(const Effort& effort);
std::vector<Row> BesideRow(const Effort& effort);
std::vector<Row> WatchersRow(const Effort& effort);

// The program and the library.
std::vector<Row> HostRows(const Effort& effort);
std::vector<Row> LibraryRow(const Effort& effort);

/// The bus service that the D-Bus row asks: answers reads of `store` on the bus at `address` until its stdin ends.
int RunDbusService(const std::string& store, const std::string& address);

/// One side of the dconf rows, until its stdin ends: the store in the folder `settings`, or dconf when it is that word.
/// For a line "read" it answers with the time of a read; for a number with the clock's count before its durable write
/// and the write's time; after "listen" and its answer it answers with the clock's count in each callback.
int RunSettings(const std::string& settings, const Effort& effort);

}  // namespace bench
