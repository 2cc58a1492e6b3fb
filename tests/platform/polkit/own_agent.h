#pragma once

#include <sdbus-c++/sdbus-c++.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/system.h"

namespace sorvane::test {

/// A polkit agent of the test's own, registered by root for one process: it answers without a window.
class OwnAgent {
 public:
  enum class Manner { saysYes, saysNo, dismisses, isSilent };

  OwnAgent(pid_t process, Manner manner) : manner_(manner) {
    using Identities = std::vector<Identity>;
    object_->registerMethod("BeginAuthentication")
        .onInterface(kInterface)
        .implementedAs([this](sdbus::Result<>&& result, const std::string& action, const std::string& message,
                              const std::string&, const std::map<std::string, std::string>&, const std::string& cookie,
                              const Identities& identities) {
          note(action + ": " + message);
          answer(std::move(result), cookie, identities);
        });
    object_->registerMethod("CancelAuthentication").onInterface(kInterface).implementedAs([this](const std::string&) {
      note("cancelled");
      open_.clear();
    });
    object_->finishRegistration();
    connection_->enterEventLoopAsync();
    const auto info = base::processInfo(process);
    const std::map<std::string, sdbus::Variant> words{
        {"pid", sdbus::Variant(static_cast<std::uint32_t>(process))},
        {"start-time", sdbus::Variant(static_cast<std::uint64_t>(info.value().startedAt))}};
    authority_->callMethod("RegisterAuthenticationAgent")
        .onInterface("org.freedesktop.PolicyKit1.Authority")
        .withArguments(Identity{"unix-process", words}, std::string("en"), std::string(kPath));
  }
  ~OwnAgent() { connection_->leaveEventLoop(); }

  /// What was asked of it, once there are `count` of them or after ten seconds.
  std::vector<std::string> asked(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    const base::Lock lock(mutex_);
    while (asked_.size() < count && changed_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) {
    }
    return asked_;
  }

 private:
  using Identity = sdbus::Struct<std::string, std::map<std::string, sdbus::Variant>>;
  static constexpr char kPath[] = "/org/sorvane/test/agent";
  static constexpr char kInterface[] = "org.freedesktop.PolicyKit1.AuthenticationAgent";

  void note(const std::string& what) {
    const base::Lock lock(mutex_);
    asked_.push_back(what);
    changed_.notify_all();
  }
  void answer(sdbus::Result<>&& result, const std::string& cookie, const std::vector<Identity>& identities) {
    switch (manner_) {
      case Manner::saysYes:
        // What the set-user-id helper of real agents does once the password was right.
        authority_->callMethod("AuthenticationAgentResponse2")
            .onInterface("org.freedesktop.PolicyKit1.Authority")
            .withArguments(std::uint32_t{0}, cookie, identities.at(0));
        return result.returnResults();
      case Manner::saysNo:
        return result.returnResults();
      case Manner::dismisses:
        return result.returnError(sdbus::Error("org.freedesktop.PolicyKit1.Error.Cancelled", "dismissed"));
      case Manner::isSilent:
        open_.push_back(std::move(result));
    }
  }

  const Manner manner_;
  base::Mutex mutex_;
  base::Condition changed_;
  std::vector<std::string> asked_ GUARDED_BY(mutex_);
  std::unique_ptr<sdbus::IConnection> connection_ = sdbus::createSystemBusConnection();
  std::unique_ptr<sdbus::IObject> object_ = sdbus::createObject(*connection_, kPath);
  // The agent speaks to polkit on the connection that it registered.
  std::unique_ptr<sdbus::IProxy> authority_ =
      sdbus::createProxy(*connection_, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority");
  // Destroyed before the connection that they would be answered on.
  std::vector<sdbus::Result<>> open_;
};

}  // namespace sorvane::test
