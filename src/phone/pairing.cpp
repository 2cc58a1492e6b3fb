#include "phone/pairing.h"

#include <array>

#include "base/codec.h"
#include "base/ids.h"
#include "crypto/derivation.h"
#include "crypto/mac.h"
#include "phone/length_fields.h"

namespace sorvane::phone {
namespace {

constexpr std::string_view kText = "sorvane-pairing-v1";
constexpr std::size_t kGroup = 4;

/// The code stretched over both keys. A code of 80 random bits needs no slow derivation.
struct ProofKey {
  std::array<std::uint8_t, 32> bytes{};
  ProofKey(std::string_view code, const PublicKey& mac, const PublicKey& phone) {
    base::Bytes info(mac.begin(), mac.end());
    info.insert(info.end(), phone.begin(), phone.end());
    crypto::hkdfSha256(base::bytesOf(code), base::bytesOf(kText), info, bytes);
  }
  ~ProofKey() { base::wipe(bytes.data(), bytes.size()); }
  ProofKey(const ProofKey&) = delete;
  ProofKey& operator=(const ProofKey&) = delete;
};

}  // namespace

base::SecretText randomPairingCode() {
  std::array<std::uint8_t, kPairingCodeCharacters> random{};
  base::fillRandom(random);
  base::SecretText code;
  // The alphabet has 32 characters, so that each is as likely as another.
  for (const auto byte : random) code.push_back(kPairingAlphabet[byte % kPairingAlphabet.size()]);
  base::wipe(random.data(), random.size());
  return code;
}

std::string groupedCode(std::string_view code) {
  std::string grouped;
  for (std::size_t i = 0; i < code.size(); ++i) {
    if (i > 0 && i % kGroup == 0) grouped += '-';
    grouped += code[i];
  }
  return grouped;
}

std::string pairingProof(std::string_view code, const PublicKey& mac, const PairConfirm& confirm,
                         const Challenge& challenge) {
  const ProofKey key(code, mac, confirm.phonePublicKey);
  LengthFields message(kText);
  message.add(mac).add(confirm.phonePublicKey).add(challenge).add(confirm.presenceKey);
  return base::base64(crypto::hmacSha256(key.bytes, message.bytes()));
}

std::string pairingLink(const PairingPlace& place, std::string_view groupedCode) {
  std::string hosts;
  for (const auto& address : place.addresses) hosts += (hosts.empty() ? "" : ",") + address;
  return "sorvane://pair?v=4&key=" + base::base64Url(place.mac) + "&host=" + hosts +
         "&port=" + std::to_string(place.port) + "&code=" + std::string(groupedCode);
}

void Pairing::open(base::SecretText code) {
  state_ = State::open;
  code_ = std::move(code);
  attemptsLeft_ = kPairingAttempts;
  deadline_ = clock_.instant() + kPairingLife;
  deviceName_.clear();
}

bool Pairing::check(const PublicKey& mac, const PairConfirm& confirm, const Challenge& challenge) {
  if (!isOpen()) return false;
  // The last one was right, and its phone could not be saved.
  if (attemptsLeft_ == 0) end(State::tooManyAttempts);
  if (!isOpen()) return false;
  --attemptsLeft_;
  if (base::sameInConstantTime(pairingProof(code_.view(), mac, confirm, challenge), confirm.proof)) return true;
  if (attemptsLeft_ == 0) end(State::tooManyAttempts);
  return false;
}

void Pairing::finish(const std::string& deviceName) {
  deviceName_ = deviceName;
  end(State::paired);
}

void Pairing::look() {
  if (state_ != state()) end(State::expired);
}

void Pairing::cancel() {
  if (isOpen()) end(State::cancelled);
}

void Pairing::end(State state) {
  state_ = state;
  code_ = {};
}

ApproverServer::PairingReport Pairing::report() const {
  ApproverServer::PairingReport report{state(), 0, {}, deviceName_};
  if (report.state != State::open) return report;
  report.attemptsLeft = attemptsLeft_;
  report.timeLeft = std::chrono::ceil<std::chrono::seconds>(deadline_ - clock_.instant());
  return report;
}

}  // namespace sorvane::phone
