#pragma once

#include <chrono>
#include <memory>
#include <thread>

#include "base/mutex.h"
#include "phone/announcer.h"

namespace sorvane::platform {

/// BonjourAnnouncer announces through the system's Bonjour daemon, by the C interface of dns_sd.h. A name that another
/// computer has already becomes another, as the daemon words it. A daemon that goes away is waited for, and told again
/// when it is back. What was announced goes with this object, and with the process.
///
/// One thread, begun by `announce` and ended by the next call or `withdraw`, keeps the announcement; it blocks on the
/// daemon's socket alone.
class BonjourAnnouncer final : public phone::Announcer {
 public:
  /// How long after the daemon went, or said no, it is tried again.
  static constexpr std::chrono::milliseconds kTryAgain{5000};
  /// How long `announce` waits for the daemon to say no. It says yes after about as long.
  static constexpr std::chrono::milliseconds kFirstAnswer{1000};

  explicit BonjourAnnouncer(std::chrono::milliseconds tryAgain = kTryAgain,
                            std::chrono::milliseconds firstAnswer = kFirstAnswer)
      : tryAgain_(tryAgain), firstAnswer_(firstAnswer) {}
  ~BonjourAnnouncer() override;
  BonjourAnnouncer(const BonjourAnnouncer&) = delete;
  BonjourAnnouncer& operator=(const BonjourAnnouncer&) = delete;

  /// What cannot be said in text records (RFC 6763) is not announced at all.
  std::optional<std::string> announce(const std::string& name, std::uint16_t port,
                                      const std::vector<std::string>& records) override;
  void withdraw() override;

 private:
  class Keeper;
  void end() REQUIRES(mutex_);

  // Constant after construction.
  const std::chrono::milliseconds tryAgain_, firstAnswer_;
  // Guarded. Held across the whole of a call, so that two of them follow each other; the thread never takes it.
  base::Mutex mutex_;
  std::shared_ptr<Keeper> keeper_ GUARDED_BY(mutex_);
  std::thread thread_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::platform
