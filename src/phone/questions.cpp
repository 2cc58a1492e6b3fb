#include "phone/questions.h"

#include <algorithm>

#include "base/ids.h"
#include "base/unicode.h"

namespace sorvane::phone {
namespace {

using Answer = ApproverServer::Answer;

/// How long is waited at most before the clock is looked at again: waiting does not count the time that the computer
/// sleeps.
constexpr std::chrono::seconds kLookAgain{1};
/// How long, and how many of the last ones, are told from requests that never were.
constexpr std::chrono::seconds kLateAnswers{60};
constexpr std::size_t kMostPast = 64;

/// Text as the link takes it: UTF-8 without zero bytes.
std::string plainText(const std::string& text) {
  std::string plain = base::repairedUtf8(text);
  std::replace(plain.begin(), plain.end(), '\0', ' ');
  return plain;
}

ApprovalDetails plainDetails(ApprovalDetails details) {
  details.reason = plainText(details.reason);
  details.requestor = plainText(details.requestor);
  if (details.subject) details.subject = plainText(*details.subject);
  if (details.declaredTarget) details.declaredTarget = plainText(*details.declaredTarget);
  if (details.allowedTargets) {
    for (auto& target : *details.allowedTargets) target = plainText(target);
  }
  return details;
}

}  // namespace

void Questions::put(Question& question) {
  std::erase_if(question.requests, [this](const auto& put) REQUIRES(mutex_) {
    return std::find(phones_.begin(), phones_.end(), put.first) == phones_.end();
  });
  for (const auto& phone : phones_) {
    if (question.requests.contains(phone)) continue;
    ApprovalRequest request{
        base::randomHexId(), {}, question.details, macName_, question.issuedAt, question.issuedAt + kRequestLife};
    base::fillRandom(request.nonce);
    question.requests.emplace(phone, std::make_shared<WaitingRequest>(WaitingRequest{std::move(request), phone}));
  }
  if (phones_.empty() && !question.answer) question.answer = Answer{};
}

void Questions::setPhones(const std::vector<PublicKey>& phones) {
  {
    const base::Lock lock(mutex_);
    phones_ = phones;
    for (auto& [number, question] : waiting_) put(question);
    answered_.notify_all();
  }
  changed_();
}

std::uint64_t Questions::add(const ApprovalDetails& details, ApproverServer::Yes yes) {
  Question question{plainDetails(details), clock_.now(), yes, {}, std::nullopt};
  put(question);
  const bool fits =
      !phones_.empty() && encodeRecord(question.requests.begin()->second->request).size() <= kMostRequestBytes;
  if (!fits || waiting_.size() >= kMostWaiting) return 0;
  waiting_.emplace(++lastNumber_, std::move(question));
  return lastNumber_;
}

void Questions::remember(const Question& question) {
  const auto now = clock_.instant();
  while (!past_.empty() && past_.front().until <= now) past_.pop_front();
  for (const auto& [phone, request] : question.requests) {
    if (!request) continue;
    auto over = std::make_shared<WaitingRequest>(*request);
    over->isOver = true;
    past_.push_back({now + kLateAnswers, std::move(over)});
  }
  while (past_.size() > kMostPast) past_.pop_front();
}

Answer Questions::ask(const ApprovalDetails& details, const std::stop_token& withdrawn, ApproverServer::Yes yes) {
  const auto begun = clock_.instant();
  std::uint64_t number = 0;
  {
    const base::Lock lock(mutex_);
    number = add(details, yes);
  }
  if (number == 0) return {};
  changed_();
  Answer answer;
  {
    base::Lock lock(mutex_);
    Question& question = waiting_.at(number);
    const auto isAnswered = [&]() REQUIRES(mutex_) { return question.answer.has_value(); };
    while (!isAnswered() && !withdrawn.stop_requested()) {
      const auto left = begun + kRequestLife - clock_.instant();
      if (left <= left.zero()) {
        remember(question);
        break;
      }
      answered_.wait_for(lock.mutex(), withdrawn, std::min<std::chrono::nanoseconds>(left, kLookAgain), isAnswered);
    }
    if (question.answer) answer = std::move(*question.answer);
    waiting_.erase(number);
  }
  // The other phones are told that nobody needs an answer any more.
  changed_();
  answer.took = clock_.instant() - begun;
  return answer;
}

std::vector<Questions::Request> Questions::waitingFor(const PublicKey& phone) const {
  std::vector<Request> requests;
  const base::Lock lock(mutex_);
  for (const auto& [number, question] : waiting_) {
    const auto put = question.requests.find(phone);
    if (!question.answer && put != question.requests.end() && put->second) requests.push_back(put->second);
  }
  return requests;
}

Questions::Request Questions::find(const std::string& id) const {
  const base::Lock lock(mutex_);
  for (const auto& [number, question] : waiting_) {
    for (const auto& [phone, request] : question.requests) {
      if (request && request->request.id == id && !question.answer) return request;
    }
  }
  for (const auto& past : past_) {
    if (past.request->request.id == id && clock_.instant() < past.until) return past.request;
  }
  return nullptr;
}

Questions::Settled Questions::settle(const std::string& id, Answer answer) {
  const base::Lock lock(mutex_);
  for (auto& [number, question] : waiting_) {
    for (auto& [phone, request] : question.requests) {
      if (!request || request->request.id != id || question.answer) continue;
      if (answer.is == Answer::Is::yes && question.yes == ApproverServer::Yes::doesNotCount) {
        request = nullptr;
        return Settled::heard;
      }
      question.answer = std::move(answer);
      answered_.notify_all();
      return Settled::answered;
    }
  }
  return Settled::notWaiting;
}

}  // namespace sorvane::phone
