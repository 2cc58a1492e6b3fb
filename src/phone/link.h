#pragma once

#include <deque>
#include <optional>
#include <set>
#include <string>

#include "base/clock.h"
#include "base/descriptor.h"
#include "phone/channel.h"
#include "phone/envelope.h"
#include "phone/frame.h"

namespace sorvane::phone {

/// Where a link stands.
///
///   (accepted) --> challenged --a "hello" or "pair" that holds--> served
///                      |                                             |
///                      | one that does not hold:                     | its phone is taken out: "unpair"
///                      | answered with `ok` false                    |
///                      '-----------------> leaving <-----------------'
///                                             |
///                                             '--all is sent, and the other end has closed, or had time to--> (gone)
///
/// From every state a link goes at once when the other end does, when it breaks a limit, when a frame cannot be read or
/// is not for its state, and when an answer's verdict says so.
enum class LinkState { challenged, served, leaving };

/// What a frame of a kind means in a state; the only place that decides.
enum class LinkStep {
  prove,        ///< a known phone's hello
  pair,         ///< a new phone
  judge,        ///< an answer, its verdict found with what the server knows; also one before the hello
  judgeOther,   ///< an answer to something that this server never asks
  forgetPhone,  ///< the phone unpairs
  refuse,       ///< not for this state: the link goes
  passOver,     ///< the link goes already
};
LinkStep stepFor(LinkState state, Kind kind);

/// Which of the limits a link broke.
enum class LinkFault {
  none,
  frame,         ///< a frame of a wrong length, one too many in a minute, or half of one when its time was over
  takesNothing,  ///< what it is sent lies untaken
};

/// Link is one connection and what it may still do: its socket, what was read and not yet taken, what is to be sent.
/// Its socket does not block. One thread.
class Link {
 public:
  /// Sent frames that the phone does not take are kept up to here; a question waits until there is room again.
  static constexpr std::size_t kRoomForQuestions = 65'536;
  /// More than this is what no honest phone leaves lying.
  static constexpr std::size_t kMostUnsent = 4 * kRoomForQuestions;

  /// `source` is what the connection is counted with.
  Link(base::Descriptor socket, std::string source, base::Instant now);

  LinkState state() const { return state_; }
  const std::string& source() const { return source_; }
  const Challenge& challenge() const { return challenge_; }
  /// Only once served.
  const PublicKey& phone() const { return phone_; }
  const Channel& channel() const { return *channel_; }
  bool wasServed() const { return channel_.has_value(); }
  bool isOf(const PublicKey& phone) const { return state_ == LinkState::served && phone_ == phone; }
  void serve(const PublicKey& phone, Channel channel);
  /// Sends what is left, then waits for the other end to close, kLeavingTime at most, so that the last words are not
  /// lost to what it sent meanwhile. Of that, answers of a phone that was served are still judged.
  void leave(base::Instant now);
  /// Goes at once.
  void end() { ended_ = true; }
  /// The same, and the system keeps nothing of what the other end did not take.
  void drop();
  bool hasEnded() const { return ended_; }
  LinkFault fault() const { return fault_; }

  /// Ids of the requests that were put and not yet answered or cancelled here.
  std::set<std::string>& put() { return put_; }
  bool hasRoomForQuestions() const { return unsent_.size() < kRoomForQuestions; }

  void send(const Envelope& envelope, base::Instant now);

  // For the loop over all links.
  int socket() const { return socket_.get(); }
  short wanted() const;
  /// Reads once what is there.
  void read(base::Instant now);
  /// The next whole frame's body. The link ends with a frame too many or of a length that is not allowed.
  std::optional<std::string> take(base::Instant now);
  void flush(base::Instant now);
  /// When the link ends unless something happens before.
  std::optional<base::Instant> deadline() const;
  /// The link ends, since that time has come.
  void expire();

 private:
  void endFor(LinkFault fault);

  base::Descriptor socket_;
  const std::string source_;
  Challenge challenge_{};
  LinkState state_ = LinkState::challenged;
  bool ended_ = false;
  LinkFault fault_ = LinkFault::none;
  PublicKey phone_{};
  std::optional<Channel> channel_;
  std::set<std::string> put_;

  FrameReader reader_;
  std::deque<base::Instant> frames_;            ///< when each of the last minute came
  std::optional<base::Instant> stateDeadline_;  ///< of the hello, or of leaving
  std::optional<base::Instant> frameBegan_;
  std::string unsent_;
  std::optional<base::Instant> unsentSince_;  ///< when the phone last took some
};

}  // namespace sorvane::phone
