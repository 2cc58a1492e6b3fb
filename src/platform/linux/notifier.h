#pragma once

#include <memory>
#include <string>

#include "agent/notifier.h"

namespace sorvane::platform {

/// Shows one notice and waits until the notification service took it, a few seconds at most: whether it did.
bool showNotice(const std::string& title, const std::string& body);

/// FreedesktopNotifier shows notices through "org.freedesktop.Notifications" on the session bus. `notify` only queues:
/// one thread, started by the first notice, does the talking, so that a slow bus holds nobody up. Of more than
/// kMaxWaiting waiting notices the oldest are dropped. Where there is no bus or no notification service, a notice is
/// dropped without a word. The destructor sends what is waiting, for at most a moment.
class FreedesktopNotifier final : public agent::Notifier {
 public:
  static constexpr std::size_t kMaxWaiting = 16;

  FreedesktopNotifier();
  ~FreedesktopNotifier() override;
  FreedesktopNotifier(const FreedesktopNotifier&) = delete;
  FreedesktopNotifier& operator=(const FreedesktopNotifier&) = delete;

  void notify(const std::string& title, const std::string& body) override;

 private:
  struct Queue;
  static void serve(Queue& queue);
  // Shared with the thread, which a bus that hangs may keep longer than this object lives.
  const std::shared_ptr<Queue> queue_;
};

}  // namespace sorvane::platform
