#pragma once

#include <string>
#include <vector>

#include "harness.h"

/// The measurements that give rows of the table; main.cpp lists them. Each starts what it needs, and measures the
/// product and its floor alternately: the floor is a minimal implementation of the same steps (floors.h,
/// shared_words.h). The goals stand in rows_*.cpp and growth.cpp. They are requirements of the product, set before it
/// was measured; docs/performance.md says why some are not reached.
namespace bench {

// rows_message.cpp and rows_dbus.cpp: requests and their replies.
std::vector<Row> WarmRow(const Effort& effort);
std::vector<Row> ParkedRow(const Effort& effort);
std::vector<Row> DbusRow(const Effort& effort);
std::vector<Row> WorkRows(const Effort& effort);

// rows_store.cpp and rows_dconf.cpp: reads, writes, and events of changes.
std::vector<Row> WriteRow(const Effort& effort);
std::vector<Row> EventRows(const Effort& effort);
std::vector<Row> DconfRows(const Effort& effort);
std::vector<Row> ReadRow(const Effort& effort);
std::vector<Row> NextToWriterRow(const Effort& effort);
std::vector<Row> ListenersRow(const Effort& effort);

// rows_program.cpp: the program `mirado host`, and the size of the plug-in.
std::vector<Row> HostRows(const Effort& effort);
std::vector<Row> LibraryRow(const Effort& effort);

// Child processes of these measurements, each the bench itself with another option.

/// The service of the D-Bus row: answers reads of `store` on the bus at `address` until the bus ends.
int RunDbusService(const std::string& store, const std::string& address);

/// One side of the dconf rows: the store in the folder `settings`, or dconf if `settings` is "dconf". Reads lines from
/// stdin until its end. "read": prints the time of a read. A number: writes it durably, and prints the clock's count
/// before the write and the time that it took. "listen": subscribes, and prints the clock's count in each callback.
int RunSettings(const std::string& settings, const Effort& effort);

}  // namespace bench
