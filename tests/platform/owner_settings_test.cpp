#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "platform/linux/managed_settings.h"
#include "platform/linux/owner_hardware.h"
#include "support/private_bus.h"

namespace sorvane::test {
namespace {

TEST(ManagedSettings, countOnlyInAFileThatRootAloneMayWrite) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to own the file";
  const TemporaryFolder folder;
  const auto file = folder.path() / "managed.json";
  const struct {
    std::string text;
    mode_t mode;
    uid_t owner;
    std::optional<bool> value;
    std::string warning;
  } cases[] = {
      {R"({"UnlockFollowsSession":true})", 0644, 0, true, ""},
      {R"({"UnlockFollowsSession":false,"Later":1})", 0600, 0, false, ""},
      {R"({"Later":1})", 0644, 0, std::nullopt, ""},
      {R"({"UnlockFollowsSession":true})", 0644, 65534, std::nullopt, "it does not belong to root"},
      {R"({"UnlockFollowsSession":true})", 0664, 0, std::nullopt, "others than root may write it"},
      {R"({"UnlockFollowsSession":true})", 0646, 0, std::nullopt, "others than root may write it"},
      {R"({"UnlockFollowsSession":1})", 0644, 0, std::nullopt, "UnlockFollowsSession is neither true nor false"},
      {R"([true])", 0644, 0, std::nullopt, "it is no JSON object"},
      {"", 0644, 0, std::nullopt, "it is no JSON object"},
      {std::string(70'000, ' '), 0644, 0, std::nullopt, "it is too long"},
  };
  for (const auto& [text, mode, owner, value, warning] : cases) {
    std::ofstream(file) << text;
    ASSERT_EQ(::chmod(file.c_str(), mode), 0);
    ASSERT_EQ(::chown(file.c_str(), owner, 0), 0);
    std::string warned;
    EXPECT_EQ(platform::managedFollowsSession(file, [&](const std::string& sentence) { warned = sentence; }), value);
    const std::string expected = "The organization's settings in " + file.string() + " were not used: " + warning +
                                 ". Ask whoever looks after this computer to put it right.";
    EXPECT_EQ(warned, warning.empty() ? "" : expected) << text.substr(0, 40);
    std::filesystem::remove(file);
  }
  int warnings = 0;
  const auto count = [&](const std::string&) { ++warnings; };
  EXPECT_EQ(platform::managedFollowsSession(file, count), std::nullopt);
  EXPECT_EQ(warnings, 0);
  std::ofstream(folder.path() / "elsewhere") << R"({"UnlockFollowsSession":true})";
  std::filesystem::create_symlink(folder.path() / "elsewhere", file);
  EXPECT_EQ(platform::managedFollowsSession(file, count), std::nullopt);
  std::filesystem::remove(file);
  ASSERT_EQ(::mkfifo(file.c_str(), 0644), 0);
  EXPECT_EQ(platform::managedFollowsSession(file, count), std::nullopt);
  EXPECT_EQ(warnings, 2);
}

/// A fingerprint service that knows the fingers of whoever asks, or has no reader.
class OwnFingerprintService {
 public:
  explicit OwnFingerprintService(std::optional<std::vector<std::string>> fingers) {
    manager_->registerMethod("GetDefaultDevice")
        .onInterface("net.reactivated.Fprint.Manager")
        .implementedAs([fingers]() -> sdbus::ObjectPath {
          if (!fingers) throw sdbus::Error("net.reactivated.Fprint.Error.NoSuchDevice", "no reader");
          return "/net/reactivated/Fprint/Device/0";
        });
    device_->registerMethod("ListEnrolledFingers")
        .onInterface("net.reactivated.Fprint.Device")
        .implementedAs([fingers](const std::string& user) {
          if (!user.empty() || fingers->empty()) {
            throw sdbus::Error("net.reactivated.Fprint.Error.NoEnrolledPrints", "no finger");
          }
          return *fingers;
        });
    manager_->finishRegistration();
    device_->finishRegistration();
    connection_->enterEventLoopAsync();
  }

 private:
  std::unique_ptr<sdbus::IConnection> connection_ = sdbus::createSystemBusConnection("net.reactivated.Fprint");
  std::unique_ptr<sdbus::IObject> manager_ = sdbus::createObject(*connection_, "/net/reactivated/Fprint/Manager");
  std::unique_ptr<sdbus::IObject> device_ = sdbus::createObject(*connection_, "/net/reactivated/Fprint/Device/0");
};

TEST(OwnerHardware, isAFingerprintWhereTheServiceKnowsOneOfThisUser) {
  const char* const earlier = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  const std::optional<std::string> kept = earlier == nullptr ? std::nullopt : std::optional<std::string>(earlier);
  {
    PrivateBus bus;
    if (!bus.isRunning()) GTEST_SKIP() << "dbus-daemon is not installed";
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    using unlock::Biometry;
    EXPECT_EQ(platform::ownerHardware(), unlock::UnlockHardware{}) << "no service";
    const std::pair<std::optional<std::vector<std::string>>, Biometry> cases[] = {
        {std::nullopt, Biometry::none},
        {std::vector<std::string>{}, Biometry::none},
        {std::vector<std::string>{"right-index-finger"}, Biometry::touchID},
    };
    for (const auto& [fingers, biometry] : cases) {
      OwnFingerprintService service(fingers);
      EXPECT_EQ(platform::ownerHardware(), (unlock::UnlockHardware{biometry, false}));
    }
    bus.stop();
    EXPECT_EQ(platform::ownerHardware(), unlock::UnlockHardware{}) << "no bus";
  }
  kept ? ::setenv("DBUS_SYSTEM_BUS_ADDRESS", kept->c_str(), 1) : ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

}  // namespace
}  // namespace sorvane::test
