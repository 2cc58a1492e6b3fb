#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <deque>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "base/codec.h"
#include "base/descriptor.h"
#include "base/ids.h"
#include "base/mutex.h"
#include "base/open_descriptors.h"
#include "crypto/digest.h"
#include "crypto/presence_key.h"
#include "phone/approver_server.h"
#include "phone/channel.h"
#include "phone/digests.h"
#include "phone/envelope.h"
#include "phone/frame.h"
#include "phone/pairing.h"
#include "phone/phone_error.h"
#include "support/doubles.h"

namespace sorvane::phone {

using namespace std::chrono_literals;
using Verdict = ApprovalResponseVerdict;
using Is = ApproverServer::Answer::Is;

/// A registry in memory that refuses to save when it is told to.
class MemoryRegistry final : public Registry {
 public:
  std::optional<base::SecretText> load() override {
    const base::Lock lock(mutex_);
    return text_ ? std::optional(base::SecretText(*text_)) : std::nullopt;
  }
  void save(const base::SecretText& record) override {
    const base::Lock lock(mutex_);
    if (refuses_) throw base::Error("The store refused.");
    text_ = record.view();
  }
  void refuse(bool refuses) {
    const base::Lock lock(mutex_);
    refuses_ = refuses;
  }
  void set(const std::string& text) {
    const base::Lock lock(mutex_);
    text_ = text;
  }
  std::string text() const {
    const base::Lock lock(mutex_);
    return text_.value_or("");
  }

 private:
  mutable base::Mutex mutex_;
  bool refuses_ GUARDED_BY(mutex_) = false;
  std::optional<std::string> text_ GUARDED_BY(mutex_);
};

class MemoryAnnouncer final : public Announcer {
 public:
  std::optional<std::string> announce(const std::string& name, std::uint16_t port,
                                      const std::vector<std::string>& records) override {
    const base::Lock lock(mutex_);
    now_ = name + " " + std::to_string(port) + " " + records.at(0);
    return std::nullopt;
  }
  void withdraw() override {
    const base::Lock lock(mutex_);
    now_.clear();
  }
  std::string now() const {
    const base::Lock lock(mutex_);
    return now_;
  }

 private:
  mutable base::Mutex mutex_;
  std::string now_ GUARDED_BY(mutex_);
};

/// What happened, in order, for a test to wait for.
template <typename Event>
class Events {
 public:
  void add(const Event& event) {
    const base::Lock lock(mutex_);
    events_.push_back(event);
    ++count_;
    changed_.notify_all();
  }
  /// How many there ever were.
  std::size_t count() {
    const base::Lock lock(mutex_);
    return count_;
  }
  /// Waits until there ever were so many; ten seconds at most.
  void reach(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    const base::Lock lock(mutex_);
    while (count_ < count && changed_.wait_until(mutex_, deadline) == std::cv_status::no_timeout) {
    }
    EXPECT_GE(count_, count);
  }
  /// The next one; nullopt when there is none for ten seconds.
  std::optional<Event> next() {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    const base::Lock lock(mutex_);
    while (events_.empty()) {
      if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) return std::nullopt;
    }
    const Event event = events_.front();
    events_.pop_front();
    return event;
  }
  std::vector<Event> all() {
    const base::Lock lock(mutex_);
    return {events_.begin(), events_.end()};
  }
  void clear() {
    const base::Lock lock(mutex_);
    events_.clear();
  }

 private:
  base::Mutex mutex_;
  base::Condition changed_;
  std::deque<Event> events_ GUARDED_BY(mutex_);
  std::size_t count_ GUARDED_BY(mutex_) = 0;
};

/// One connection of a phone, or of somebody who takes its place. It follows the rules only where it is told to.
class Connection {
 public:
  explicit Connection(std::uint16_t port, const char* from = "127.0.0.1", int room = 0)
      : socket_(base::openSocket(AF_INET, SOCK_STREAM)) {
    sockaddr_in here{}, there{};
    here.sin_family = there.sin_family = AF_INET;
    ::inet_pton(AF_INET, from, &here.sin_addr);
    ::inet_pton(AF_INET, "127.0.0.1", &there.sin_addr);
    there.sin_port = htons(port);
    if (room != 0) ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    const timeval limit{10, 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&here), sizeof here);
    isConnected_ = ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&there), sizeof there) == 0;
  }
  bool isConnected() const { return isConnected_; }

  void sendBytes(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), base::quietSend());
      if (sent <= 0) return;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  void send(const Envelope& envelope) { sendBytes(framed(encodeEnvelope(envelope))); }
  static std::string framed(const std::string& body) { return std::string(base::textOf(*writeFrame(body))); }
  /// Nothing more is sent.
  void finish() { ::shutdown(socket_.get(), SHUT_WR); }

  /// The next message; nullopt when the link ended. A server that is silent for ten seconds is a failure of the test.
  std::optional<Envelope> receive() {
    while (true) {
      if (const auto body = reader_.next()) return decodeEnvelope(*body, Side::mac);
      std::array<std::uint8_t, 4096> piece;
      const ssize_t got = ::recv(socket_.get(), piece.data(), piece.size(), 0);
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) throw std::runtime_error("the server was silent");
      if (got <= 0) return std::nullopt;
      reader_.add(std::span(piece).first(static_cast<std::size_t>(got)));
    }
  }
  /// Whether what is sent now is thrown back, because the other end is gone for good.
  bool isRefused() {
    pollfd watched{socket_.get(), 0, 0};
    return ::poll(&watched, 1, 10'000) == 1 && (watched.revents & (POLLHUP | POLLERR)) != 0;
  }
  /// Takes what comes until the link ends; whether nothing in it granted anything.
  bool endsWithoutGrant() {
    bool isGranted = false;
    while (const auto next = receive()) isGranted = isGranted || next->ok.value_or(false);
    return !isGranted;
  }

 private:
  base::Descriptor socket_;
  bool isConnected_ = false;
  FrameReader reader_;
};

/// A phone that keeps to the page.
class ScriptedPhone {
 public:
  ScriptedPhone(std::string name, PublicKey mac)
      : name_(std::move(name)), mac_(mac), channel_(*Channel::of(Side::phone, key_, mac)) {}

  const PublicKey& key() const { return key_.publicKey(); }
  const Channel& channel() const { return channel_; }
  const crypto::PresenceKey& presence() const { return presence_; }

  Envelope pairMessage(const Challenge& challenge, const std::string& code) const {
    Envelope message;
    message.kind = Kind::pair;
    message.pairRequest = PairRequest{key(), channel_.seal(confirmOf(challenge, code))};
    return message;
  }
  PairConfirm confirmOf(const Challenge& challenge, const std::string& code) const {
    PairConfirm confirm{key(), presence_.publicKey(), false, name_, ""};
    confirm.proof = pairingProof(code, mac_, confirm, challenge);
    return confirm;
  }
  /// What stands for the phone's challenge in the computer's proof when a pairing succeeded.
  Challenge expectedOfPairing(const Challenge& challenge, const std::string& code) const {
    return crypto::sha256(base::bytesOf(confirmOf(challenge, code).proof));
  }
  Envelope helloMessage(const Challenge& challenge) const {
    Envelope message;
    message.kind = Kind::hello;
    message.peerPublicKey = key();
    message.sealed = channel_.seal(HelloProof{challenge, key(), kPhoneChallenge, std::nullopt});
    return message;
  }
  ApprovalResponse answerTo(const ApprovalRequest& request, bool approved) const {
    ApprovalResponse answer{request.id, request.nonce, approvalDigest(request), approved, std::nullopt};
    if (approved) answer.presenceSignature = presence_.sign(presenceMessage(answer.digest));
    return answer;
  }
  Envelope sealed(const ApprovalResponse& answer) const {
    Envelope message;
    message.kind = Kind::approvalResponse;
    message.sealed = channel_.seal(answer);
    return message;
  }
  /// Whether the message is an acknowledgement that this computer alone can have made, on this link.
  bool believes(const Envelope& message, const Challenge& challenge, const Challenge& phoneChallenge) const {
    if (!message.ok.value_or(false) || !message.sealed) return false;
    return channel_.open<MacProof>(*message.sealed) == MacProof{phoneChallenge, challenge, mac_};
  }

  static constexpr Challenge kPhoneChallenge{7};

 private:
  const crypto::AgreementKey key_ = crypto::AgreementKey::random();
  const crypto::PresenceKey presence_ = crypto::PresenceKey::random();
  const std::string name_;
  const PublicKey mac_;
  const Channel channel_;
};

}  // namespace sorvane::phone
