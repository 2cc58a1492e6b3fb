#include "platform/linux/owner_hardware.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <string>
#include <vector>

namespace sorvane::platform {
namespace {

constexpr char kService[] = "net.reactivated.Fprint";
/// The service may have to be started first.
constexpr std::chrono::seconds kCallLimit{3};

bool hasFingerprint() try {
  const auto connection = sdbus::createSystemBusConnection();
  const auto manager = sdbus::createProxy(*connection, kService, "/net/reactivated/Fprint/Manager");
  sdbus::ObjectPath reader;
  manager->callMethod("GetDefaultDevice")
      .onInterface("net.reactivated.Fprint.Manager")
      .withTimeout(kCallLimit)
      .storeResultsTo(reader);
  const auto device = sdbus::createProxy(*connection, kService, reader);
  const std::string whoeverAsks;
  std::vector<std::string> fingers;
  device->callMethod("ListEnrolledFingers")
      .onInterface("net.reactivated.Fprint.Device")
      .withTimeout(kCallLimit)
      .withArguments(whoeverAsks)
      .storeResultsTo(fingers);
  return !fingers.empty();
} catch (const sdbus::Error&) {
  // No bus, no service, no reader, or no finger: it says so as an error.
  return false;
}

}  // namespace

unlock::UnlockHardware ownerHardware() {
  return {.biometry = hasFingerprint() ? unlock::Biometry::touchID : unlock::Biometry::none, .watch = false};
}

}  // namespace sorvane::platform
