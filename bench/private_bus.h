#pragma once

#include <string>

#include "simulated.h"

namespace bench {

/// A D-Bus session bus for a measurement. It starts installed services on demand. The destructor ends it.
class PrivateBus {
 public:
  /// `environment` are arguments of env(1), for the daemon and the services. Throws if the daemon does not start.
  explicit PrivateBus(const std::vector<std::string>& environment = {});

  const std::string& address() const { return address_; }

 private:
  Scratch folder_{std::filesystem::temp_directory_path()};  // because the path of a socket must be short
  std::unique_ptr<Child> daemon_;
  std::string address_;
};

}  // namespace bench
