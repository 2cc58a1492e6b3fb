#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "approver/channel.h"
#include "approver/frame.h"
#include "approver/question.h"
#include "base/clock.h"
#include "crypto/agreement.h"
#include "crypto/presence_key.h"

namespace sorvane::approver {

/// DeviceKeys are this device's own: one for the channel, one that signs a yes.
struct DeviceKeys {
  crypto::AgreementKey agreement;
  crypto::PresenceKey presence;
};

/// SeenRequests remembers, from one link to the next, which requests were answered here and how, until they have
/// expired: none is put to the person twice, and an answer that was lost with its link can be sent once more.
class SeenRequests {
 public:
  /// `answer` is the answer's text.
  void add(const Question& question, std::string answer);
  bool has(const std::string& id) const { return answered_.contains(id); }
  /// The answer to this very request, its nonce and its words; null when there is none.
  const std::string* answerTo(const Question& question) const;
  void forgetExpired(base::Date now);

 private:
  struct Answered {
    Question question;
    std::string answer;
  };
  std::map<std::string, Answered> answered_;
};

/// Link is one connection to the computer without the connection: bytes in, bytes and events out. One thread.
///
///   greeting -- "challenge" --> proving -- "helloAck" / "paired", proof holds --> open -- "unpair" --> ended
///
/// Anything that has no arrow, or cannot be read or opened, is LinkError, and the link is to be closed.
class Link {
 public:
  struct Pairing {
    std::string_view code;  ///< stays the caller's
    std::string deviceName;
  };
  /// Whom the link is between. A key of the computer that no channel can be made with is LinkError (wrongComputer).
  struct Ends {
    const DeviceKeys& device;
    PublicKey computer{};
  };
  Link(const Ends& ends, std::optional<Pairing> pairing, SeenRequests& seen, const base::Clock& clock);

  struct Connected {
    std::string macName;
  };
  struct Refused {};  ///< the computer does not know this device, or the code was wrong; the link ends
  struct Asked {
    Question question;
  };
  /// A request was not put to the person.
  struct PassedOver {
    enum class Why { expired, answeredBefore, answerSentAgain, tooMany };
    Why why{};
  };
  struct Withdrawn {
    std::string id;
  };
  struct Unpaired {};
  using Event = std::variant<Connected, Refused, Asked, PassedOver, Withdrawn, Unpaired>;

  /// Takes what came and says what it means, in order. Nothing is to be handed in behind a LinkError, Refused or
  /// Unpaired.
  std::vector<Event> receive(std::span<const std::uint8_t> bytes);
  /// What is to be sent now; empty when nothing is.
  std::string takeOutput();

  enum class Answer { yes, no };
  /// Answers a question that was asked on this link and neither answered nor withdrawn; false: there is none.
  bool answer(const std::string& id, Answer answer);
  /// Tells the computer that the pairing ends. The link must be open.
  void unpair();

  bool isOpen() const { return state_ == State::open; }
  /// Whether a frame has begun of which more must come.
  bool isInFrame() const { return reader_.isInFrame(); }

  /// Requests that wait here at once; more than a person would ever answer in their time.
  static constexpr std::size_t kMostWaiting = 64;

 private:
  enum class State { greeting, proving, open, ended };

  Event take(const Envelope& envelope);
  void greet(const Envelope& challenge);
  Event prove(const Envelope& acknowledgement);
  Event ask(const Envelope& envelope);
  std::string openBox(const Envelope& envelope, Record record) const;
  void sendAnswer(const Question& question, std::string_view text);
  void sendSealed(FromPhone kind, Record record, std::string_view text);

  // Constant after construction.
  const DeviceKeys& device_;
  const PublicKey computer_;
  const Channel channel_;
  const std::optional<Pairing> pairing_;
  const base::Clock& clock_;

  SeenRequests& seen_;
  FrameReader reader_;
  std::string output_;
  State state_ = State::greeting;
  Challenge challenge_{}, phoneChallenge_{};
  std::string macName_;
  std::map<std::string, Question> waiting_;
  std::set<std::string> answeredHere_;  ///< ids whose answers this link has taken
};

}  // namespace sorvane::approver
