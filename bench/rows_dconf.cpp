// The store compared with dconf, the settings service of desktops. Each side is two processes: one reads and writes,
// one subscribes.

#include <dconf/dconf.h>

#include <iostream>
#include <limits>
#include <stdexcept>

#include "private_bus.h"
#include "rows.h"
#include "vconf.h"

namespace bench {
namespace {

/// The operations that are measured, in the store and in dconf. A failure throws.
class Settings {
 public:
  Settings() = default;
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;
  virtual ~Settings() = default;
  virtual int Read() = 0;
  virtual void Write(int value) = 0;
  virtual void Listen() = 0;  ///< subscribes; then each change calls `PrintTime` while `Serve` runs
  virtual void Serve() = 0;

 protected:
  static void PrintTime() {
    const auto now = Clock::now();
    std::cout << now.time_since_epoch().count() << std::endl;
  }
};

class Vconf : public Settings {
 public:
  explicit Vconf(const std::string& store) { OrThrow(vconf::OpenOrCreateStore(store, {{kDiskKey, 0}})); }
  ~Vconf() override { vconf::CloseStore(); }
  int Read() override {
    int value = 0;
    if (vconf_get_int(kDiskKey, &value) != 0) throw std::runtime_error("a read failed");
    return value;
  }
  void Write(int value) override { OrThrow(vconf::Set(kDiskKey, value)); }
  void Listen() override {
    if (vconf_notify_key_changed(
            kDiskKey, [](keynode_t*, void*) { PrintTime(); }, nullptr) < 0) {
      throw std::runtime_error("a subscription failed");
    }
  }
  void Serve() override { std::cin.ignore(std::numeric_limits<std::streamsize>::max()); }
};

class Dconf : public Settings {
 public:
  ~Dconf() override { g_object_unref(client_); }
  int Read() override {
    GVariant* const value = dconf_client_read(client_, kKey);
    if (value == nullptr) throw std::runtime_error("a read failed");
    const int number = g_variant_get_int32(value);
    g_variant_unref(value);
    return number;
  }
  void Write(int value) override {
    if (dconf_client_write_sync(client_, kKey, g_variant_new_int32(value), nullptr, nullptr, nullptr) == FALSE) {
      throw std::runtime_error("a write failed");
    }
  }
  void Listen() override {
    g_signal_connect(client_, "changed", G_CALLBACK(+[](DConfClient*) { PrintTime(); }), nullptr);
    dconf_client_watch_sync(client_, kKey);
  }
  void Serve() override {
    while (true) g_main_context_iteration(nullptr, TRUE);  // until the other process ends this one
  }

 private:
  static constexpr const char* kKey = "/menu/caption/caption";
  DConfClient* client_ = dconf_client_new();
};

/// One side: starts its two processes and returns the medians of their times.
class Side {
 public:
  Side(const std::vector<std::string>& command, const Effort& effort)
      : effort_(effort), writer_(command), listener_(command) {
    Change();  // creates the key and starts the service
    listener_.Write("listen\n");
    listener_.ReadLine();
  }
  double Read() {
    writer_.Write("read\n");
    return std::stod(writer_.ReadLine());
  }
  double Write() {
    return MedianOf(effort_.singles, [&] {
      const auto [start, time] = Change();
      listener_.ReadLine();
      return time;
    });
  }
  double Event() {
    return MedianOf(effort_.singles, [&] {
      Rest();
      const auto [start, time] = Change();
      return static_cast<double>(std::stoll(listener_.ReadLine()) - start);
    });
  }

 private:
  std::pair<std::int64_t, double> Change() {
    writer_.Write(std::to_string(++value_) + "\n");
    const std::int64_t start = std::stoll(writer_.ReadLine());
    return {start, std::stod(writer_.ReadLine())};
  }

  const Effort effort_;
  Child writer_;
  Child listener_;
  int value_ = 0;
};

}  // namespace

int RunSettings(const std::string& settings, const Effort& effort) {
  std::unique_ptr<Settings> side;
  if (settings == "dconf") {
    side = std::make_unique<Dconf>();
  } else {
    side = std::make_unique<Vconf>(settings);
  }
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "read") {
      std::cout << PerCall(effort, [&] { side->Read(); }) << std::endl;
    } else if (line == "listen") {
      side->Listen();
      std::cout << "listening" << std::endl;
      side->Serve();
    } else {
      const int value = std::stoi(line);
      const auto start = Clock::now();
      side->Write(value);
      const double time = Since(start);
      if (side->Read() != value) throw std::runtime_error("a write was lost");
      std::cout << start.time_since_epoch().count() << '\n' << time << std::endl;
    }
  }
  return EXIT_SUCCESS;
}

std::vector<Row> DconfRows(const Effort& effort) {
  const Scratch configuration;
  const Scratch memory("/dev/shm");
  const Scratch store;
  std::vector<std::string> own{OwnProgram()};
  if (effort.rounds == kQuickEffort.rounds) own.emplace_back("--quick");
  own.emplace_back("--settings");
  std::vector<std::string> environment{"-u", "DCONF_PROFILE", "XDG_CONFIG_HOME=" + configuration.path().string(),
                                       "XDG_RUNTIME_DIR=" + memory.path().string()};
  std::unique_ptr<PrivateBus> bus;
  std::unique_ptr<Side> dconf;
  try {
    bus = std::make_unique<PrivateBus>(environment);
    environment.insert(environment.begin(), "env");
    environment.push_back("DBUS_SESSION_BUS_ADDRESS=" + bus->address());
    environment.insert(environment.end(), own.begin(), own.end());
    environment.emplace_back("dconf");
    dconf = std::make_unique<Side>(environment, effort);
  } catch (const std::runtime_error&) {
    return {Missing("the store compared with dconf", "dbus-daemon or dconf-service is missing or does not start")};
  }
  own.emplace_back(store.path() / "store");
  Side ours(own, effort);
  const auto row = [&](const char* what, const char* compared_with, double (Side::*measure)()) {
    return AtMost(what, compared_with,
                  Compare(
                      effort, [&] { return (*dconf.*measure)(); }, [&] { return (ours.*measure)(); }),
                  0.2);
  };
  return {row("`vconf_get_int` of one key", "`dconf_client_read`", &Side::Read),
          row("`vconf::Set` of a `db/` key, durable", "`dconf_client_write_sync`", &Side::Write),
          row("change of a `db/` key to callback in another process", "the same through dconf", &Side::Event)};
}

}  // namespace bench
