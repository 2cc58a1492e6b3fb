#pragma once

#include <memory>

#include "agent/notifier.h"

namespace sorvane::platform {

class NoticeGate;

/// UserNotifier shows notices in the Notification Center. The first one asks the owner whether they may be shown, once;
/// those that come meanwhile wait for the answer. A refusal is kept by the system, which then drops notices without a
/// word until the owner says otherwise in System Settings. Without a bundle, as in a test, all are dropped. Nothing is
/// waited for.
class UserNotifier final : public agent::Notifier {
 public:
  UserNotifier();
  ~UserNotifier() override;
  UserNotifier(const UserNotifier&) = delete;
  UserNotifier& operator=(const UserNotifier&) = delete;

  void notify(const std::string& title, const std::string& body) override;

 private:
  // Shared with the question to the owner, whose answer may come when this object is gone.
  const std::shared_ptr<NoticeGate> gate_;
};

}  // namespace sorvane::platform
