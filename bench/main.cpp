// Measures Mirado, and compares it with floors: minimal programs that take the same steps, or dconf. Run by
// script/bench.

#include <array>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "growth.h"
#include "rows.h"
#include "shared_words.h"
#include "simulated.h"

namespace {

using namespace bench;

struct Measurement {
  const char* name;
  const char* what;
  Figures (*measure)(const Effort& effort);
};

template <std::vector<Row> (*Rows)(const Effort&)>
Figures RowsOnly(const Effort& effort) {
  return {{}, Rows(effort)};
}

// `script/bench --help` reads the names and texts from these lines with sed: one entry on each, with this indentation.
constexpr std::array<Measurement, 17> kMeasurements{{
    {"warm", "warm round trip", RowsOnly<WarmRow>},
    {"parked", "round trip to a parked worker", RowsOnly<ParkedRow>},
    {"dbus", "read through D-Bus", RowsOnly<DbusRow>},
    {"work", "the commands' own work", RowsOnly<WorkRows>},
    {"read", "reads of the store", RowsOnly<ReadRow>},
    {"dconf", "reads, writes and changes, compared with dconf", RowsOnly<DconfRows>},
    {"next_to_writer", "writes in memory next to a durable writer", RowsOnly<NextToWriterRow>},
    {"listeners", "many listening processes", RowsOnly<ListenersRow>},
    {"write", "durable write", RowsOnly<WriteRow>},
    {"event", "change to event", RowsOnly<EventRows>},
    {"host", "start and memory of the host", RowsOnly<HostRows>},
    {"library", "size of the library", RowsOnly<LibraryRow>},
    {"instances", "growth: instances", GrowInstances},
    {"subscribers", "growth: subscribers of a change", GrowSubscribers},
    {"subscriptions", "growth: subscriptions of a page", GrowSubscriptions},
    {"keys", "growth: keys in the store", GrowKeys},
    {"messages", "growth: size of a message", GrowMessages},
}};

void WriteTable(std::ostream& out, const std::vector<Row>& rows) {
  out << "| what | compared with | its figure | measured | ratio | goal | reached |\n|---|---|---|---|---|---|---|\n";
  for (const Row& row : rows) {
    out << "| " << row.what << " | " << row.compared_with << " | " << row.reference << " | " << row.measured << " | "
        << row.ratio << " | " << row.goal << " | "
        << (!row.reached   ? "not measured"
            : *row.reached ? "yes"
                           : "no")
        << " |\n";
  }
}

void WriteSeries(std::ostream& out, const Series& series) {
  for (std::size_t i = 0; i < series.columns.size(); ++i) out << (i == 0 ? "" : "\t") << series.columns[i];
  out << '\n';
  for (const auto& point : series.points) {
    for (std::size_t i = 0; i < point.size(); ++i) out << (i == 0 ? "" : "\t") << Number(point[i]);
    out << '\n';
  }
}

void WriteFile(const std::filesystem::path& path, const std::function<void(std::ostream&)>& write) {
  std::ofstream file(path);
  write(file);
  if (!file.flush()) throw std::runtime_error("could not write " + path.string());
}

int Measure(const std::vector<std::string>& names, const Effort& effort, const std::filesystem::path& out) {
  HandleStopSignals();
  DiscardStderr();
  std::vector<Row> rows;
  int done = 0;
  for (const auto& [name, what, measure] : kMeasurements) {
    ++done;
    if (!names.empty() && std::find(names.begin(), names.end(), name) == names.end()) continue;
    Progress("[" + std::to_string(done) + "/" + std::to_string(kMeasurements.size()) + "] " + what);
    const Figures figures = measure(effort);
    rows.insert(rows.end(), figures.rows.begin(), figures.rows.end());
    for (const Series& series : figures.series) {
      WriteSeries(std::cout, series);
      if (!out.empty()) {
        WriteFile(out / (series.name + ".tsv"), [&](std::ostream& file) { WriteSeries(file, series); });
      }
    }
  }
  WriteTable(std::cout, rows);
  if (!out.empty()) {
    WriteFile(out / "table.md", [&](std::ostream& file) { WriteTable(file, rows); });
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Measures Mirado, and compares it with minimal programs that take the same steps.");
  std::vector<std::string> names;
  std::vector<std::string> known;
  known.reserve(std::size(kMeasurements));
  for (const auto& each : kMeasurements) known.emplace_back(each.name);
  bool quick = false;
  bool instances = false;
  std::string out;
  std::string writer;
  std::string hand_over;
  std::string sleeper;
  std::string listener;
  std::string durable_writer;
  std::string service;
  std::string address;
  std::string settings;
  app.add_option("rows", names, "The measurements; all if none is named")->check(CLI::IsMember(known));
  app.add_flag("--quick", quick, "Rough figures in a fraction of the time");
  app.add_option("--out", out, "A folder for the table and the curves")->check(CLI::ExistingDirectory);
  app.add_option("--scratch", Scratch::Place(), "A folder on the file system that is measured");
  // Not for users: each makes this program one of the child processes that rows.h, growth.h, shared_words.h and
  // simulated.h declare as `Run…`.
  app.add_flag("--instances", instances)->group("");
  app.add_option("--writer", writer)->group("");
  app.add_option("--hand-over", hand_over)->group("");
  app.add_option("--sleeper", sleeper)->group("");
  app.add_option("--listener", listener)->group("");
  app.add_option("--durable-writer", durable_writer)->group("");
  app.add_option("--dbus-service", service)->group("");
  app.add_option("--address", address)->group("");
  app.add_option("--settings", settings)->group("");
  CLI11_PARSE(app, argc, argv);
  try {
    if (instances) return RunInstances();
    if (!writer.empty()) return RunWriter(writer);
    if (!hand_over.empty()) return RunHandOver(hand_over);
    if (!sleeper.empty()) return RunSleeper(sleeper);
    if (!listener.empty()) return RunListener(listener);
    if (!durable_writer.empty()) return RunDurableWriter(durable_writer);
    if (!service.empty()) return RunDbusService(service, address);
    if (!settings.empty()) return RunSettings(settings, quick ? kQuickEffort : kFullEffort);
    return Measure(names, quick ? kQuickEffort : kFullEffort, out);
  } catch (const Stop&) {
    Progress("stopped");
    return 130;
  } catch (const std::exception& error) {
    Progress(StopAsked() ? "stopped" : std::string("error: ") + error.what());
    return StopAsked() ? 130 : EXIT_FAILURE;
  }
}
