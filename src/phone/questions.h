#pragma once

#include <deque>
#include <map>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "phone/approver_server.h"
#include "phone/verdict.h"

namespace sorvane::phone {

/// Questions holds what the owner is asked and no phone has answered yet. A question is put to each phone as a request
/// of its own id and nonce, so that an answer says who gave it. Any thread.
class Questions {
 public:
  /// More at once than an owner could look through; the next one is answered with nothing.
  static constexpr std::size_t kMostWaiting = 64;
  /// What a request's JSON may have so that it fits into a frame: sealed and twice in base64's length it stays below
  /// kMostFrameBytes.
  static constexpr std::size_t kMostRequestBytes = 48'000;
  /// The request as it is sent, for as long as somebody looks at it.
  using Request = std::shared_ptr<const WaitingRequest>;

  /// `changed` is called, without the lock, when there is something to send or to take back.
  Questions(const base::Clock& clock, std::string macName, std::function<void()> changed)
      : clock_(clock), macName_(std::move(macName)), changed_(std::move(changed)) {}

  /// Whom questions are put to from now on, those that wait included. A phone that is not among them any more is asked
  /// nothing; without any phone, what waits is answered with nothing.
  void setPhones(const std::vector<PublicKey>& phones);
  /// Blocks, as ApproverServer::ask.
  ApproverServer::Answer ask(const ApprovalDetails& details, const std::stop_token& withdrawn,
                             ApproverServer::Yes yes = ApproverServer::Yes::settles);

  /// What waits for this phone's answer, oldest first.
  std::vector<Request> waitingFor(const PublicKey& phone) const;
  /// The request of this id, of whichever phone, also one whose time was over less than a minute ago; null when there
  /// is none.
  Request find(const std::string& id) const;
  enum class Settled {
    notWaiting,  ///< any more
    answered,
    heard,  ///< a yes that does not count: this phone is asked no more
  };
  /// Answers the question of this request.
  Settled settle(const std::string& id, ApproverServer::Answer answer);

 private:
  struct Question {
    ApprovalDetails details;
    base::Date issuedAt;
    ApproverServer::Yes yes = ApproverServer::Yes::settles;
    std::map<PublicKey, Request> requests;  ///< null for a phone whose yes was heard and does not count
    std::optional<ApproverServer::Answer> answer;
  };
  using Waiting = std::map<std::uint64_t, Question>;

  void put(Question& question) REQUIRES(mutex_);
  std::uint64_t add(const ApprovalDetails& details, ApproverServer::Yes yes) REQUIRES(mutex_);
  /// Keeps its requests for a minute, so that a late answer is told from one to nothing.
  void remember(const Question& question) REQUIRES(mutex_);

  // Constant after construction.
  const base::Clock& clock_;
  const std::string macName_;
  const std::function<void()> changed_;
  // Guarded. A leaf.
  mutable base::Mutex mutex_;
  base::Condition answered_;
  std::vector<PublicKey> phones_ GUARDED_BY(mutex_);
  Waiting waiting_ GUARDED_BY(mutex_);  ///< by the order in which they came
  struct Past {
    base::Instant until;
    Request request;
  };
  std::deque<Past> past_ GUARDED_BY(mutex_);  ///< oldest first
  std::uint64_t lastNumber_ GUARDED_BY(mutex_) = 0;
};

}  // namespace sorvane::phone
