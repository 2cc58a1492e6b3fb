#include "platform/linux/notifier.h"
#include "platform/linux/owner_check.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "support/private_bus.h"

namespace sorvane::test {
namespace {

using platform::FreedesktopNotifier;
using platform::showReasonAsNotice;
using namespace std::chrono_literals;

/// A notification service on a private bus that remembers what it was to show, or never answers.
class OwnDesktop {
 public:
  explicit OwnDesktop(std::vector<std::string> capabilities, bool hangs = false)
      : connection_(sdbus::createSessionBusConnection("org.freedesktop.Notifications")) {
    using Hints = std::map<std::string, sdbus::Variant>;
    const std::string name = "org.freedesktop.Notifications";
    object_->registerMethod("GetCapabilities").onInterface(name).implementedAs([capabilities] { return capabilities; });
    object_->registerMethod("Notify").onInterface(name).implementedAs(
        [this](const std::string&, std::uint32_t, const std::string&, const std::string& title, const std::string& body,
               const std::vector<std::string>&, const Hints&, std::int32_t) {
          const base::Lock lock(mutex_);
          shown_.push_back(title + "|" + body);
          changed_.notify_all();
          return static_cast<std::uint32_t>(shown_.size());
        });
    object_->finishRegistration();
    if (!hangs) connection_->enterEventLoopAsync();
  }
  /// What was shown once there are `count` of them, or after ten seconds.
  std::vector<std::string> shown(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    const base::Lock lock(mutex_);
    while (shown_.size() < count && changed_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) {
    }
    return shown_;
  }

 private:
  base::Mutex mutex_;
  base::Condition changed_;
  std::vector<std::string> shown_ GUARDED_BY(mutex_);
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IObject> object_ = sdbus::createObject(*connection_, "/org/freedesktop/Notifications");
};

class DesktopNotices : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!bus_.isRunning()) GTEST_SKIP() << "dbus-daemon is not installed";
  }
  PrivateBus bus_;
};

TEST_F(DesktopNotices, showWordsAsWordsWhereverBodiesAreMarkup) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"body", "body-markup"}, "A <b>|&lt;a href='x'&gt;R&amp;D&lt;/a&gt; \xEF\xBF\xBD"},
      {{"body"}, "A <b>|<a href='x'>R&D</a> \xEF\xBF\xBD"},
  };
  for (const auto& [capabilities, expected] : cases) {
    OwnDesktop desktop(capabilities);
    { FreedesktopNotifier().notify("A <b>", "<a href='x'>R&D</a> \xff"); }
    EXPECT_EQ(desktop.shown(1), std::vector<std::string>{expected});
  }
}

TEST_F(DesktopNotices, areSilentWithoutAServiceAndAppearOnceThereIsOne) {
  FreedesktopNotifier notifier;
  { FreedesktopNotifier().notify("nobody", "listens"); }
  bus_.stop();
  { FreedesktopNotifier().notify("no", "bus"); }
  notifier.notify("no", "bus");
  bus_.start();
  OwnDesktop desktop({});
  notifier.notify("now", "shown");
  // The notice before may have found the new bus in time.
  auto shown = desktop.shown(1);
  if (shown == std::vector<std::string>{"no|bus"}) shown = desktop.shown(2);
  ASSERT_FALSE(shown.empty());
  EXPECT_EQ(shown.back(), "now|shown");
}

TEST_F(DesktopNotices, tellWhetherThereWasAServiceToTakeAReason) {
  EXPECT_FALSE(showReasonAsNotice("Unlock sorvane"));
  {
    OwnDesktop desktop({"body"});
    EXPECT_TRUE(showReasonAsNotice("Unlock sorvane"));
    EXPECT_TRUE(showReasonAsNotice("Codex asks\nIt says: \x1b[2J\nNothing else"));
    const std::string title = "sorvane asks whether it is you|";
    EXPECT_EQ(desktop.shown(2),
              (std::vector{title + "Unlock sorvane.", title + "Codex asks\nIt says: \\x1b[2J\nNothing else"}));
  }
  bus_.stop();
  EXPECT_FALSE(showReasonAsNotice("Unlock sorvane"));
}

TEST_F(DesktopNotices, neverHoldTheCallerUpWhenTheServiceHangs) {
  OwnDesktop desktop({}, true);
  const auto start = std::chrono::steady_clock::now();
  {
    FreedesktopNotifier notifier;
    for (int i = 0; i < 1000; ++i) notifier.notify("t", "b");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
}

}  // namespace
}  // namespace sorvane::test
