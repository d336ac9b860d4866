#pragma once

#include <string>

#include "simulated.h"

namespace bench {

/// A session bus of the bench's own, on which the services that are installed start when they are asked. It ends with
/// its object.
class PrivateBus {
 public:
  /// `environment` are arguments of env(1), for the daemon and what it starts. Throws when it does not start.
  explicit PrivateBus(const std::vector<std::string>& environment = {});

  const std::string& address() const { return address_; }

 private:
  Scratch folder_{std::filesystem::temp_directory_path()};  // a socket's path is short
  std::unique_ptr<Child> daemon_;
  std::string address_;
};

}  // namespace bench
