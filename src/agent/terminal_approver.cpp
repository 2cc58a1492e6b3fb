#include "agent/terminal_approver.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "agent/terminal_question.h"
#include "base/open_descriptors.h"
#include "base/unicode.h"

namespace sorvane::agent {
namespace {

/// Longest line that is read as an answer; anything longer is no yes.
constexpr std::size_t kMaxAnswer = 64;

/// Whether the line is the word or its first letter, in any case of letters.
bool says(std::string_view word, std::string_view line) {
  std::string typed(base::trimmed(line));
  std::transform(typed.begin(), typed.end(), typed.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return typed == word || typed == word.substr(0, 1);
}

}  // namespace

/// One request in the queue; lives on its thread's stack.
struct TerminalApprover::Waiting {
  const ApprovalContext& context;
  std::optional<bool> answer;  ///< given with an equal request's

  bool equals(const Waiting& other) const {
    const auto process = [](const ApprovalContext& c) {
      return c.processes.empty() ? std::pair<pid_t, unsigned long long>{0, 0}
                                 : std::pair{c.processes.front().pid, c.processes.front().startedAt};
    };
    return context.mayBeAnsweredTogether && other.context.mayBeAnsweredTogether && !context.processes.empty() &&
           context.callerIdentity == other.context.callerIdentity && process(context) == process(other.context) &&
           context.requestDigest == other.context.requestDigest;
  }
};

std::optional<bool> TerminalApprover::ask(const OwnerApprovalPrompt& prompt, const ApprovalContext& context) {
  Waiting own{context, {}};
  if (!waitForTurn(own, context.withdrawn)) return own.answer;
  if (!letHandsRest(context.withdrawn)) {
    endTurn(own);
    return std::nullopt;
  }
  std::optional<bool> answer = put(own, prompt);
  if (answer) {
    const std::size_t together = answerEqual(own, *answer);
    show(std::string(*answer ? "Allowed." : "Not allowed.") +
         (together > 1 ? " The answer went to " + std::to_string(together) + " equal requests.\n" : "\n"));
  } else {
    show(context.answeredElsewhere.stop_requested() ? "\nA phone answered this.\n"
         : context.withdrawn.stop_requested()       ? "\nThe request was withdrawn.\n"
                                                    : "\nNo answer came; nothing was allowed here.\n");
    restsUntil_ = std::chrono::steady_clock::now() + rest_;
  }
  endTurn(own);
  return answer;
}

/// A turn of somebody else's, who asks in words of their own.
class TerminalApprover::Turn {
 public:
  Turn(TerminalApprover& approver, const std::stop_token& withdrawn)
      : approver_(approver), isMine_(approver.waitForTurn(own_, withdrawn)) {}
  ~Turn() {
    if (isMine_) approver_.endTurn(own_);
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  bool isMine() const { return isMine_; }

 private:
  TerminalApprover& approver_;
  // Without a process it equals no request.
  const ApprovalContext nobody_;
  Waiting own_{nobody_, {}};
  const bool isMine_;
};

std::shared_ptr<void> TerminalApprover::takeTurn(const std::stop_token& withdrawn) {
  auto turn = std::make_shared<Turn>(*this, withdrawn);
  return turn->isMine() ? turn : nullptr;
}

bool TerminalApprover::waitForTurn(Waiting& own, const std::stop_token& withdrawn) {
  base::Lock lock(mutex_);
  waiting_.push_back(&own);
  const auto mine = [&]() REQUIRES(mutex_) { return own.answer || (!taken_ && waiting_.front() == &own); };
  turnChanged_.wait(lock.mutex(), withdrawn, mine);
  if (own.answer || withdrawn.stop_requested()) {
    waiting_.remove(&own);
    turnChanged_.notify_all();
    return false;
  }
  taken_ = true;
  return true;
}

void TerminalApprover::endTurn(Waiting& own) {
  const base::Lock lock(mutex_);
  taken_ = false;
  waiting_.remove(&own);
  turnChanged_.notify_all();
}

bool TerminalApprover::letHandsRest(const std::stop_token& withdrawn) {
  base::Lock lock(mutex_);
  turnChanged_.wait_until(lock.mutex(), withdrawn, restsUntil_, [] { return false; });
  return !withdrawn.stop_requested();
}

std::size_t TerminalApprover::countEqual(const Waiting& own) {
  const base::Lock lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(waiting_.begin(), waiting_.end(), [&](const Waiting* w) { return w == &own || w->equals(own); }));
}

std::size_t TerminalApprover::answerEqual(const Waiting& own, bool answer) {
  const base::Lock lock(mutex_);
  std::size_t together = 1;
  for (Waiting* const other : waiting_) {
    if (other == &own || !other->equals(own)) continue;
    other->answer = answer;
    ++together;
  }
  turnChanged_.notify_all();
  return together;
}

std::optional<bool> TerminalApprover::put(const Waiting& own, const OwnerApprovalPrompt& prompt) {
  const ApprovalContext& context = own.context;
  const std::string question = terminalQuestion(prompt, context, countEqual(own));
  // Text of any kind that was typed before the question stood there is not an answer to it.
  ::tcflush(input_.get(), TCIFLUSH);
  show(question);
  const auto until = std::chrono::steady_clock::now() + patience_;
  for (;;) {
    const auto line = readLine(context.withdrawn, until);
    if (!line) return std::nullopt;
    if (context.whoseYesCounts != Approver::phone) return says("yes", *line);
    if (says("no", *line)) return false;
    // It stays with the phone, and whoever sits here may still say no.
    show(kOnlyNoHere);
  }
}

std::optional<std::string> TerminalApprover::readLine(const std::stop_token& withdrawn,
                                                      std::chrono::steady_clock::time_point until) {
  const auto stop = base::openWakePipe();
  if (!stop) return std::nullopt;
  const std::stop_callback onWithdrawn(withdrawn, [&] { base::wake(*stop); });
  std::string line;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count();
    if (left <= 0) return std::nullopt;
    std::array<pollfd, 2> waits{pollfd{input_.get(), POLLIN, 0}, pollfd{stop->read.get(), POLLIN, 0}};
    const int ready = ::poll(waits.data(), waits.size(), static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return std::nullopt;
    if (ready <= 0) continue;
    if (waits[1].revents != 0) return std::nullopt;
    std::array<char, 256> piece;
    const ssize_t got = ::read(input_.get(), piece.data(), piece.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) return std::nullopt;
    line.append(piece.data(), static_cast<std::size_t>(got));
    if (const std::size_t end = line.find('\n'); end != std::string::npos) {
      line.resize(end);
      return line.size() > kMaxAnswer ? std::string() : line;
    }
    if (line.size() > 2 * kMaxAnswer) line.resize(2 * kMaxAnswer);
  }
}

void TerminalApprover::show(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(output_.get(), text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace sorvane::agent
