// The warm `getMenuValue` compared with a read of the same key through D-Bus: a service in another process.

#include <systemd/sd-bus.h>

#include <iostream>
#include <memory>
#include <stdexcept>

#include "private_bus.h"
#include "rows.h"
#include "simulated.h"
#include "vconf.h"

namespace bench {
namespace {

constexpr char kName[] = "com.norvika.Settings";
constexpr char kObject[] = "/com/norvika/Settings";

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, CloseBus>;

void Need(int status, const char* step) {
  if (status < 0) throw std::runtime_error(std::string("the bus: ") + step + " failed");
}

Bus Connect(const std::string& address) {
  sd_bus* made = nullptr;
  Need(sd_bus_new(&made), "making a connection");
  Bus bus(made);
  Need(sd_bus_set_address(made, address.c_str()), "reading the address");
  Need(sd_bus_set_bus_client(made, 1), "becoming a client");
  Need(sd_bus_start(made), "connecting");
  return bus;
}

int AnswerGet(sd_bus_message* message, void* /*data*/, sd_bus_error* /*error*/) {
  const char* path = nullptr;
  int value = 0;
  if (sd_bus_message_read(message, "s", &path) < 0 || vconf_get_int(path, &value) != 0) {
    return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_FAILED, "no such key");
  }
  return sd_bus_reply_method_return(message, "i", value);
}

const sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Get", "s", "i", AnswerGet, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int GetThroughBus(sd_bus* bus) {
  sd_bus_message* reply = nullptr;
  int value = 0;
  Need(sd_bus_call_method(bus, kName, kObject, kName, "Get", nullptr, &reply, "s", kDiskKey), "a call");
  Need(sd_bus_message_read(reply, "i", &value), "reading a reply");
  sd_bus_message_unref(reply);
  return value;
}

}  // namespace

int RunDbusService(const std::string& store, const std::string& address) {
  OrThrow(vconf::OpenStore(store));
  const Bus bus = Connect(address);
  Need(sd_bus_add_object_vtable(bus.get(), nullptr, kObject, kName, kMethods, nullptr), "offering the object");
  Need(sd_bus_request_name(bus.get(), kName, 0), "taking the name");
  std::cout << "ready" << std::endl;
  while (true) {
    const int processed = sd_bus_process(bus.get(), nullptr);
    if (processed < 0) return EXIT_SUCCESS;  // the bus is gone
    if (processed == 0 && sd_bus_wait(bus.get(), UINT64_MAX) < 0) return EXIT_SUCCESS;
  }
}

std::vector<Row> DbusRow(const Effort& effort) {
  constexpr char kWhat[] = "a settings read through D-Bus";
  const Set set;
  const auto page = set.Page();
  const pp::Var request = Request("getMenuValue", kDiskKeyNumber);
  MustSucceed(*page, request);

  std::unique_ptr<PrivateBus> daemon;
  try {
    daemon = std::make_unique<PrivateBus>();
  } catch (const std::runtime_error&) {
    return {Missing(kWhat, "dbus-daemon is missing or does not start")};
  }
  Child service({OwnProgram(), "--dbus-service", set.store(), "--address", daemon->address()});
  service.ReadLine();
  const Bus bus = Connect(daemon->address());
  GetThroughBus(bus.get());

  const auto warm = [&] { return PerCall(effort, [&] { page->Send(request); }); };
  const auto through_bus = [&] { return PerCall(effort, [&] { GetThroughBus(bus.get()); }); };
  // The other way round than in the other rows: the product is the reference, and the bus must be slower.
  const Comparison times = Compare(effort, warm, through_bus);
  return {{kWhat, "warm `getMenuValue`", Time(times.reference), Time(times.measured), Number(times.ratio, 0),
           "at least 50", times.ratio >= 50}};
}

}  // namespace bench
