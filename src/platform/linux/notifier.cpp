#include "platform/linux/notifier.h"

#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/unicode.h"

namespace sorvane::platform {

using base::Lock;

namespace {

constexpr char kName[] = "org.freedesktop.Notifications";
constexpr char kPath[] = "/org/freedesktop/Notifications";
constexpr std::chrono::seconds kCallLimit{2};
constexpr std::chrono::seconds kFarewell{2};

struct Notice {
  std::string title, body;
};

/// Text as the bus takes it: UTF-8 without zero bytes.
std::string plainText(const std::string& text) {
  std::string plain = base::repairedUtf8(text);
  std::replace(plain.begin(), plain.end(), '\0', ' ');
  return plain;
}

/// A body is markup where the service says so; a notice quotes words of callers, which must stay words.
std::string escaped(const std::string& text) {
  std::string markup;
  for (const char c : text) {
    switch (c) {
      case '&':
        markup += "&amp;";
        break;
      case '<':
        markup += "&lt;";
        break;
      case '>':
        markup += "&gt;";
        break;
      default:
        markup += c;
    }
  }
  return markup;
}

/// NotificationService is one connection to whoever shows notices. Failures are sdbus::Error.
class NotificationService {
 public:
  NotificationService()
      : connection_(sdbus::createSessionBusConnection()), proxy_(sdbus::createProxy(*connection_, kName, kPath)) {}

  void show(const Notice& notice) {
    // Asked each time: another service may have taken the name.
    std::vector<std::string> capabilities;
    proxy_->callMethod("GetCapabilities").onInterface(kName).withTimeout(kCallLimit).storeResultsTo(capabilities);
    const bool isMarkup = std::find(capabilities.begin(), capabilities.end(), "body-markup") != capabilities.end();
    const std::string body = plainText(notice.body);
    const std::map<std::string, sdbus::Variant> hints{{"desktop-entry", sdbus::Variant(std::string("sorvane"))}};
    constexpr std::uint32_t kReplacesNone = 0;
    constexpr std::int32_t kServiceDecidesHowLong = -1;
    std::uint32_t id = 0;
    proxy_->callMethod("Notify")
        .onInterface(kName)
        .withTimeout(kCallLimit)
        .withArguments(std::string("sorvane"), kReplacesNone, std::string(), plainText(notice.title),
                       isMarkup ? escaped(body) : body, std::vector<std::string>(), hints, kServiceDecidesHowLong)
        .storeResultsTo(id);
  }

 private:
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

}  // namespace

bool showNotice(const std::string& title, const std::string& body) try {
  NotificationService().show({title, body});
  return true;
} catch (const std::exception&) {
  return false;
}

struct FreedesktopNotifier::Queue {
  // Guarded. mutex_ is a leaf.
  base::Mutex mutex;
  base::Condition changed;
  std::deque<Notice> waiting GUARDED_BY(mutex);
  bool isStarted GUARDED_BY(mutex) = false;
  bool isClosed GUARDED_BY(mutex) = false;
  bool isServed GUARDED_BY(mutex) = true;  ///< nothing waits and the thread, if any, has ended or is idle
};

FreedesktopNotifier::FreedesktopNotifier() : queue_(std::make_shared<Queue>()) {}

FreedesktopNotifier::~FreedesktopNotifier() {
  const auto deadline = std::chrono::steady_clock::now() + kFarewell;
  const Lock lock(queue_->mutex);
  queue_->isClosed = true;
  queue_->changed.notify_all();
  while (!queue_->isServed && queue_->changed.wait_until(queue_->mutex, deadline) == std::cv_status::no_timeout) {
  }
  // A bus that hangs keeps the thread for one more call only.
  queue_->waiting.clear();
}

void FreedesktopNotifier::notify(const std::string& title, const std::string& body) {
  try {
    const Lock lock(queue_->mutex);
    if (!queue_->isStarted) {
      sigset_t all, earlier;
      sigfillset(&all);
      // Signals are for the threads that wait for them.
      ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
      std::thread([queue = queue_] { serve(*queue); }).detach();
      ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
      queue_->isStarted = true;
    }
    if (queue_->waiting.size() == kMaxWaiting) queue_->waiting.pop_front();
    queue_->waiting.push_back({title, body});
    queue_->isServed = false;
    queue_->changed.notify_all();
  } catch (const std::exception&) {
    // Without memory or a thread there is no notice; nothing depends on one.
  }
}

void FreedesktopNotifier::serve(Queue& queue) {
  std::unique_ptr<NotificationService> service;
  while (true) {
    Notice notice;
    {
      const Lock lock(queue.mutex);
      while (queue.waiting.empty()) {
        queue.isServed = true;
        queue.changed.notify_all();
        if (queue.isClosed) return;
        queue.changed.wait(queue.mutex);
      }
      notice = std::move(queue.waiting.front());
      queue.waiting.pop_front();
    }
    try {
      if (!service) service = std::make_unique<NotificationService>();
      service->show(notice);
    } catch (const std::exception&) {
      // The next notice tries a new connection.
      service.reset();
    }
  }
}

}  // namespace sorvane::platform
