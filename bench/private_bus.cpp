#include "private_bus.h"

#include <fstream>

namespace bench {
namespace {

constexpr char kConfiguration[] = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=SOCKET</listen>
  <servicedir>/usr/share/dbus-1/services</servicedir>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

}  // namespace

PrivateBus::PrivateBus(const std::vector<std::string>& environment) {
  std::string configuration = kConfiguration;
  configuration.replace(configuration.find("SOCKET"), 6, folder_.path() / "bus");
  const std::string file = folder_.path() / "bus.conf";
  std::ofstream(file) << configuration;
  std::vector<std::string> command{"env"};
  command.insert(command.end(), environment.begin(), environment.end());
  command.insert(command.end(), {"dbus-daemon", "--nofork", "--print-address", "--config-file=" + file});
  daemon_ = std::make_unique<Child>(command);
  address_ = daemon_->ReadLine();
}

}  // namespace bench
