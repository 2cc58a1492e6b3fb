#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "phone/approver_server.h"
#include "phone/link_record.h"
#include "phone/links.h"
#include "phone/pairing.h"
#include "phone/questions.h"

namespace sorvane::phone {

/// What the server's thread shows the others.
struct LinkView {
  explicit LinkView(const base::Clock& clock) : pairing(clock) {}
  // Guarded. A leaf.
  mutable base::Mutex mutex;
  std::vector<ApproverServer::Phone> phones GUARDED_BY(mutex);
  bool isListening GUARDED_BY(mutex) = false;
  Pairing pairing GUARDED_BY(mutex);
};

/// LinkService is what the server's thread does: it alone knows the identity, changes the record and talks on the
/// links. It blocks on the registry when a phone is paired or taken out, on the announcer when listening begins, ends
/// or pairing opens, for a few seconds each, and otherwise on nothing but poll; `ask` waits for none of these.
class LinkService final : private Links::Handler {
 public:
  struct Ports {
    const ApproverServer::Ports& server;
    Questions& questions;
    LinkView& view;
    int wake;  ///< readable when `turn` is to look again
  };
  /// Listens when a phone is paired; that it cannot is said on standard error.
  LinkService(const Ports& ports, LinkRecord record);
  ~LinkService() override;
  LinkService(const LinkService&) = delete;
  LinkService& operator=(const LinkService&) = delete;

  /// Announces, and remembers a port that changed. First on the thread.
  void begin();
  /// One round: sends what waits, takes what came.
  void turn();

  ApproverServer::PairingOffer beginPairing();
  void cancelPairing();
  void revoke(std::string_view phone);

 private:
  using Verdict = ApprovalResponseVerdict;

  void begun(Link& link) override;
  void frame(Link& link, const std::string& body) override;
  void broke(Link& link) override;
  void gone(const Link& link) override;

  void prove(Link& link, const Envelope& hello);
  void pair(Link& link, const Envelope& request);
  void judgeAnswer(Link& link, const Envelope& envelope);
  void judgeOther(Link& link, const Envelope& envelope);
  void forgetPhone(Link& link, const Envelope& envelope);

  bool savePaired(const PairConfirm& confirm);
  void serve(Link& link, const PublicKey& phone, Channel channel);
  void acknowledge(Link& link, Kind kind, const Challenge& phoneChallenge);
  void refuse(Link& link, Kind kind);
  void makeRoom(const PublicKey& newcomer);
  void end(Link& link, Verdict verdict);
  /// Puts what waits to the phone, and takes back what does not any more.
  void putQuestions(Link& link);

  void take(LinkRecord record);
  void forget(const PublicKey& phone);
  void listen();
  void announce();
  void stopWhenNobodyNeedsIt();
  bool isPairing() const;
  void publish();
  void changed();

  const ApproverServer::Ports& server_;
  Questions& questions_;
  LinkView& view_;
  LinkRecord record_;
  Links links_;
  std::optional<std::string> notAnnounced_;
};

}  // namespace sorvane::phone
