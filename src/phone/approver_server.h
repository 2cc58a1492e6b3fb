#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "phone/announcer.h"
#include "phone/approval_details.h"
#include "phone/local_addresses.h"
#include "phone/registry.h"
#include "phone/verdict.h"

namespace sorvane::phone {

/// Limits of the link (docs/phone-link.md).
inline constexpr std::size_t kMostPhones = 5, kMostLinks = 8, kMostNewLinks = 16, kMostNewLinksOfSource = 4;
inline constexpr std::size_t kMostFramesPerMinute = 60;
inline constexpr std::chrono::seconds kHelloTime{10}, kFrameTime{10}, kLeavingTime{10}, kRequestLife{120},
    kPairingLife{120};
inline constexpr int kPairingAttempts = 5;

/// ApproverServer serves the link to the paired phones: it listens while one is paired or pairing is open, and puts
/// questions to every phone. One thread of its own serves all links. Any thread; failures are PhoneError, or the
/// registry's own error, whose sentence may be shown.
class ApproverServer {
 public:
  struct Ports {
    Registry& registry;
    Announcer& announcer;
    const base::Clock& clock;
    std::string macName;  ///< what a phone shows; 1 to 64 characters
    /// Told, on the server's thread, when a phone was paired, came, went or was revoked. It may read `phones` and
    /// `pairing`, and change nothing here. May be absent.
    std::function<void()> onChange = {};
    /// Told, on the server's thread, how each answer was judged, and that a frame was unreadable. May be absent.
    std::function<void(ApprovalResponseVerdict)> onVerdict = {};
    /// Where others reach this computer, and what a stranger's connection is counted with.
    std::function<std::vector<std::string>()> addresses = localAddresses;
    std::function<std::string(const sockaddr&)> sourceOf = sourceNetwork;
  };
  explicit ApproverServer(Ports ports);
  ~ApproverServer();
  ApproverServer(const ApproverServer&) = delete;
  ApproverServer& operator=(const ApproverServer&) = delete;

  /// Reads the registry, and listens when a phone is paired. A registry that cannot be read is said on standard error,
  /// and nothing is served.
  void open();
  /// Ends every link, forgets the keys; what waits is answered with nothing. `open` begins anew.
  void close();

  // Pairing.
  struct PairingOffer {
    std::string code;  ///< in groups of four
    std::string link;  ///< "sorvane://pair?…", what the QR code holds
    std::vector<std::string> addresses;
    std::uint16_t port = 0;
    std::optional<std::string> notAnnounced;  ///< why the local network does not know, as a sentence
    std::optional<std::string> notReachable;  ///< that no other computer gets here, as a sentence
  };
  enum class PairingState { none, open, paired, expired, tooManyAttempts, cancelled };
  struct PairingReport {
    PairingState state = PairingState::none;
    int attemptsLeft = 0;
    std::chrono::seconds timeLeft{};
    std::string deviceName;  ///< of the phone that was paired
  };
  /// Opens pairing; throws when it is open already, five phones are paired, or nothing can listen.
  PairingOffer beginPairing();
  /// Of the last pairing.
  PairingReport pairing() const;
  void cancelPairing();

  // Phones.
  struct Phone {
    std::string id;  ///< first 16 hexadecimal digits of the SHA-256 of its public key
    std::string name;
    bool hardwarePresenceKey = false;
    bool connected = false;
    base::Date pairedAt;
  };
  std::vector<Phone> phones() const;
  /// Forgets the phone of this id, or of an only name that is this; tells it when it is connected. Throws when there is
  /// none, or more than one of the name.
  void revoke(std::string_view phone);

  // Questions.
  struct Answer {
    enum class Is { yes, no, none };
    Is is = Is::none;
    std::string phone;  ///< the name of the one that answered
    std::chrono::nanoseconds took{};
  };
  /// Whether a question could be answered: a phone is paired and the server listens.
  bool isServed() const;
  /// What a yes does to the question: it settles it, or, where the policy wants another's yes, the phone that gave it
  /// is told that nobody needs it, and the others are asked on, so that only a no settles it.
  enum class Yes { settles, doesNotCount };
  /// Puts the question to each paired phone, also to one that comes while it waits, until one answers, `withdrawn` is
  /// stopped, or kRequestLife is over. Blocks.
  Answer ask(const ApprovalDetails& details, const std::stop_token& withdrawn, Yes yes = Yes::settles);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sorvane::phone
