#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "approver/browser.h"
#include "approver/key_file.h"
#include "approver/talk.h"

namespace sorvane::approver {

/// Finder says where a computer may be: an address that a person gave, else where it was last, else what the local
/// network says. Used by one thread.
class Finder {
 public:
  /// `browser` may be absent.
  Finder(std::optional<Place> given, Browser* browser, const StopSignals& signals)
      : given_(std::move(given)), browser_(browser), signals_(signals) {}

  /// The first place that `tryPlace` says true to; false when none. The local network is asked last, because it takes
  /// time. Throws Interrupted.
  bool find(const std::vector<Place>& known, const std::string& computerId,
            const std::function<bool(const Place&)>& tryPlace) const;

 private:
  const std::optional<Place> given_;
  Browser* const browser_;
  const StopSignals& signals_;
};

/// Waiter keeps a link to the paired computer, and begins anew with growing pauses whenever one ends.
class Waiter {
 public:
  struct Paired {
    KeyFile& file;
    OpenPairing& pairing;
    SeenRequests& seen;
  };
  Waiter(const Talk::Ports& ports, const Finder& finder, const Paired& paired)
      : ports_(ports), finder_(finder), file_(paired.file), pairing_(paired.pairing), seen_(paired.seen) {}

  enum class End { unpaired, terminalGone };
  /// Goes on until the pairing ends or nobody can answer any more. Throws Interrupted.
  End run();
  /// The same, beginning with a link that is open already.
  End run(Talk& open);
  /// Connects once and tells the computer that the pairing ends; false when it could not be told.
  bool unpair();

  static constexpr std::chrono::seconds kFirstPause{1}, kLongestPause{30};
  static constexpr std::chrono::milliseconds kConnectTime{4000};

 private:
  /// nullopt: try again.
  std::optional<End> afterwards(Talk::End end);
  bool connect(const Place& place);
  void remember(const Place& place);
  void pause();
  void sayOnce(const std::string& sentence);

  const Talk::Ports ports_;
  const Finder& finder_;
  KeyFile& file_;
  OpenPairing& pairing_;
  SeenRequests& seen_;
  std::unique_ptr<Link> link_;
  std::unique_ptr<Talk> talk_;
  std::optional<Talk::End> lastEnd_;
  std::chrono::seconds nextPause_ = kFirstPause;
  std::string said_;  ///< of an outage, so that nothing is said twice
};

}  // namespace sorvane::approver
