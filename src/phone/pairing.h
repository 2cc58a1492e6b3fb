#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/secret_text.h"
#include "phone/approver_server.h"
#include "phone/records.h"

namespace sorvane::phone {

// How a phone proves that it read the code from the computer's screen (docs/phone-link.md, Pairing).

inline constexpr std::size_t kPairingCodeCharacters = 16;
/// Letters and digits that are not taken for one another; 80 bits in all.
inline constexpr std::string_view kPairingAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";

/// A fresh code: the characters alone, without dashes.
base::SecretText randomPairingCode();
/// In groups of four, as it is shown.
std::string groupedCode(std::string_view code);

/// The text of `PairConfirm.proof` for the characters `code`.
std::string pairingProof(std::string_view code, const PublicKey& mac, const PairConfirm& confirm,
                         const Challenge& challenge);

/// Where a phone finds this computer, and who it is.
struct PairingPlace {
  PublicKey mac{};
  std::vector<std::string> addresses;
  std::uint16_t port = 0;
};
/// "sorvane://pair?…", the QR code's text.
std::string pairingLink(const PairingPlace& place, std::string_view groupedCode);

/// Pairing is the one pairing that may be open: its code, how often it was tried and until when. One thread at a time.
///
///   none --open--> open --right proof--> paired
///                   | |---its time is over--> expired
///                   | |---the last attempt was wrong--> tooManyAttempts
///                   | '---cancel--> cancelled
///   every state but open --open--> open
class Pairing {
 public:
  using State = ApproverServer::PairingState;
  explicit Pairing(const base::Clock& clock) : clock_(clock) {}

  void open(base::SecretText code);
  /// Takes an attempt, and tells whether `confirm` proves the code. Only while it is open. The code stays until
  /// `finish`, so that a phone that could not be saved may try again.
  bool check(const PublicKey& mac, const PairConfirm& confirm, const Challenge& challenge);
  void finish(const std::string& deviceName);
  void cancel();
  /// Forgets the code when its time is over.
  void look();

  bool isOpen() const { return state() == State::open; }
  ApproverServer::PairingReport report() const;
  base::Instant deadline() const { return deadline_; }

 private:
  State state() const { return state_ == State::open && clock_.instant() >= deadline_ ? State::expired : state_; }
  void end(State state);

  const base::Clock& clock_;
  State state_ = State::none;
  base::SecretText code_;
  int attemptsLeft_ = 0;
  base::Instant deadline_{};
  std::string deviceName_;
};

}  // namespace sorvane::phone
