#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "scripted_phone.h"

namespace sorvane::phone {

/// A server and what stands around it.
class ServerHouse : public ::testing::Test {
 protected:
  void TearDown() override {
    // Whatever a test did to it, the server goes on.
    if (server_) server_->close();
  }

  ApproverServer& server() {
    if (!server_) {
      server_ = std::make_unique<ApproverServer>(ApproverServer::Ports{
          registry_, announcer_, clock_, "Desk", [this] { changes_.add(0); },
          [this](Verdict verdict) { verdicts_.add(verdict); }, [this] { return addresses_; }, sourceOf_});
      server_->open();
    }
    return *server_;
  }
  void restart() {
    server_.reset();
    server();
  }

  ApproverServer::PairingOffer offer() {
    auto offer = server().beginPairing();
    port_ = offer.port;
    code_.clear();
    for (const char c : offer.code) {
      if (c != '-') code_ += c;
    }
    return offer;
  }
  /// The computer's key as its challenge says it; a phone has it from the code.
  PublicKey mac() {
    Connection stranger(port_);
    const auto key = *stranger.receive()->peerPublicKey;
    // Until it counts among the strangers no more.
    stranger.finish();
    stranger.receive();
    return key;
  }
  std::unique_ptr<ScriptedPhone> newPhone(const std::string& name) {
    return std::make_unique<ScriptedPhone>(name, mac());
  }

  Connection connect(const char* from = "127.0.0.1") { return Connection(port_, from); }
  static Challenge challengeOf(Connection& link) {
    const auto message = link.receive();
    if (!message || message->kind != Kind::challenge) throw std::runtime_error("no challenge");
    return *message->challenge;
  }

  /// Pairs and leaves.
  std::unique_ptr<ScriptedPhone> paired(const std::string& name) {
    offer();
    auto phone = newPhone(name);
    Connection link = connect();
    const auto challenge = challengeOf(link);
    link.send(phone->pairMessage(challenge, code_));
    const auto answer = link.receive();
    if (!answer || !answer->ok.value_or(false)) throw std::runtime_error("not paired");
    return phone;
  }
  /// With room for so many bytes that it has not read; 0: as the system likes.
  Connection served(const ScriptedPhone& phone, int room = 0) {
    Connection link(port_, "127.0.0.1", room);
    const auto challenge = challengeOf(link);
    link.send(phone.helloMessage(challenge));
    const auto answer = link.receive();
    if (!answer || !phone.believes(*answer, challenge, ScriptedPhone::kPhoneChallenge)) {
      throw std::runtime_error("not served");
    }
    return link;
  }

  /// What the answer to "pair" says; the link is over when it says no.
  static bool pairs(const ScriptedPhone& phone, Connection& link, const std::string& code) {
    const auto challenge = *link.receive()->challenge;
    link.send(phone.pairMessage(challenge, code));
    const auto answer = link.receive();
    if (!answer || answer->kind != Kind::paired) throw std::runtime_error("no answer to pair");
    const bool ok = answer->ok.value_or(false);
    EXPECT_EQ(ok, phone.believes(*answer, challenge, phone.expectedOfPairing(challenge, code)));
    if (!ok) {
      EXPECT_EQ(link.receive(), std::nullopt);
    }
    return ok;
  }

  /// Asks on a thread of its own.
  std::future<ApproverServer::Answer> asking(const ApprovalDetails& details = kDetails) {
    return std::async(std::launch::async, [this, details] { return server_->ask(details, stop_.get_token()); });
  }
  static ApprovalRequest requestOf(const ScriptedPhone& phone, Connection& link) {
    const auto message = link.receive();
    if (!message || message->kind != Kind::approvalRequest) throw std::runtime_error("no request");
    return *phone.channel().open<ApprovalRequest>(*message->sealed);
  }
  std::string cancelOf(const ScriptedPhone& phone, Connection& link) {
    const auto message = link.receive();
    if (!message || message->kind != Kind::cancel) throw std::runtime_error("no cancel");
    return phone.channel().open<ApprovalCancel>(*message->sealed)->id;
  }
  /// Whether a link that was served still is.
  void stillServes(const ScriptedPhone& phone) {
    const std::size_t judged = verdicts_.count();
    Connection link = served(phone);
    auto answer = asking();
    link.send(phone.sealed(phone.answerTo(requestOf(phone, link), true)));
    EXPECT_EQ(answer.get().is, Is::yes);
    // Who asked may hear of the yes before it is said how the answer was judged.
    verdicts_.reach(judged + 1);
  }

  static inline const ApprovalDetails kDetails{
      ApprovalDetails::Kind::useEnvironment, "Run make deploy", "agent", "web", 3, {{"staging"}}, "staging"};

  MemoryRegistry registry_;
  MemoryAnnouncer announcer_;
  test::ManualClock clock_;
  Events<Verdict> verdicts_;
  Events<int> changes_;
  std::stop_source stop_;
  std::unique_ptr<ApproverServer> server_;
  std::uint16_t port_ = 0;
  std::string code_;
  std::vector<std::string> addresses_{"192.0.2.7"};
  // Each address of this computer stands for another one.
  std::function<std::string(const sockaddr&)> sourceOf_ = addressText;
};

}  // namespace sorvane::phone
