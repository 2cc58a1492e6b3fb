#pragma once

#include <memory>
#include <thread>

#include "base/mutex.h"
#include "phone/announcer.h"

namespace sorvane::platform {

/// AvahiAnnouncer announces through the local Avahi (org.freedesktop.Avahi on the system bus). A name that another
/// computer has already becomes "name #2", as Avahi words it. An Avahi or a bus that goes away is waited for, and told
/// again when it is back. What was announced goes with this object, and with the process.
///
/// One thread, begun by `announce` and ended by the next call or `withdraw`, keeps the announcement; it blocks on the
/// bus alone.
class AvahiAnnouncer final : public phone::Announcer {
 public:
  static constexpr char kServiceType[] = "_sorvane._tcp";
  /// How long after the bus went it is tried again.
  static constexpr std::chrono::milliseconds kTryAgain{5000};

  explicit AvahiAnnouncer(std::chrono::milliseconds tryAgain = kTryAgain) : tryAgain_(tryAgain) {}
  ~AvahiAnnouncer() override;
  AvahiAnnouncer(const AvahiAnnouncer&) = delete;
  AvahiAnnouncer& operator=(const AvahiAnnouncer&) = delete;

  /// Waits until Avahi took the announcement, a few seconds at most.
  std::optional<std::string> announce(const std::string& name, std::uint16_t port,
                                      const std::vector<std::string>& records) override;
  void withdraw() override;

 private:
  class Keeper;
  void end() REQUIRES(mutex_);

  // Constant after construction.
  const std::chrono::milliseconds tryAgain_;
  // Guarded. Held across the whole of a call, so that two of them follow each other; the thread never takes it.
  base::Mutex mutex_;
  std::shared_ptr<Keeper> keeper_ GUARDED_BY(mutex_);
  std::thread thread_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::platform
