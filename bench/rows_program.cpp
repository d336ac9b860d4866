// The start and the memory of `mirado host`, and the size of the plug-in.

#include <stdexcept>

#include "rows.h"
#include "simulated.h"

namespace bench {

std::vector<Row> HostRows(const Effort& effort) {
  const Scratch folder;
  const std::vector<std::string> command{MIRADO_PROGRAM, "host", "--store", folder.path() / "store"};
  Child({command}).End();  // creates the store

  std::vector<double> memory;
  const double start_to_reply = MedianOf(effort.singles, [&] {
    const auto start = Clock::now();
    Child host(command);
    host.Write("{\"send\":{\"command\":\"getMenuValue\",\"propertyKey\":0}}\n");
    const std::string line = host.ReadLine();
    const double time = Since(start);
    if (!line.starts_with(R"({"reply":{"code":0,)")) throw std::runtime_error("mirado host answers " + line);
    memory.push_back(ProcessField(host.pid(), "status", "VmHWM:"));
    if (host.End() != 0) throw std::runtime_error("mirado host failed");
    return time;
  });
  return {AtMost("`mirado host` from start to first reply", start_to_reply, 20e6 /* ns */, Time),
          AtMost("its peak memory", Median(memory) * 1024, 16 * 1024 * 1024 /* bytes */, Memory)};
}

std::vector<Row> LibraryRow(const Effort& /*effort*/) {
  const Scratch folder;
  const std::string stripped = folder.path() / "libmirado.so";
  if (Child({"strip", "-o", stripped, MIRADO_PLUGIN_PATH}).End() != 0) {
    return {Missing("`libmirado.so`, stripped", "strip is missing")};
  }
  return {
      AtMost("`libmirado.so`, stripped", static_cast<double>(std::filesystem::file_size(stripped)), 96 * 1024, Memory)};
}

}  // namespace bench
