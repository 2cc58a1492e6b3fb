#include "agent/server_request.h"

#include "crypto/digest.h"
#include "crypto/mac.h"

namespace sorvane::agent {

ServerRequest::~ServerRequest() {
  if (watched_) setting_.hangups.remove(*watched_);
}

const std::vector<base::ProcessInfo>& ServerRequest::processes() {
  if (!processes_)
    processes_ = setting_.peer >= 1 ? base::processChain(setting_.peer) : std::vector<base::ProcessInfo>();
  return *processes_;
}

const std::string& ServerRequest::requester() {
  if (requester_.empty()) {
    const auto& chain = processes();
    requester_ = describeRequester(caller(), request().requestor,
                                   chain.empty() ? std::nullopt : std::optional(chain.front().name));
  }
  return requester_;
}

std::stop_token ServerRequest::withdrawn() {
  if (!watched_) {
    stop_ = std::stop_source();
    watched_ = setting_.hangups.add(setting_.socket, stop_);
    // The server may have stopped before this request was known to the watch.
    if (!setting_.approvals.isCurrent(setting_.generation)) stop_.request_stop();
  }
  return stop_.get_token();
}

std::string ServerRequest::fingerprint(const base::SecretText& text) {
  return crypto::hmacSha256Hex(*setting_.clipboardKey, text.bytes());
}

ApprovalResult ServerRequest::ask(const OperationQuestion& asked) {
  const ApprovalRule rule = operationOf(request().op).approval;
  // An operation whose row says that nobody is asked has nothing to ask.
  if (rule == ApprovalRule::none) return ApprovalResult::denied;
  ApprovalQuestion question;
  question.rule = rule;
  question.generation = setting_.generation;
  question.environmentId = asked.environmentId;
  question.whoseYesCounts = asked.whoseYesCounts;
  question.prompt = asked.prompt;
  question.prompt.requestor = request().requestor;
  ApprovalContext& context = question.context;
  context.label = caller().label;
  context.callerIdentity = caller().identity;
  context.isController = caller().kind == Caller::Kind::controller;
  context.processes = processes();
  context.commandWords = asked.commandWords;
  context.directory = asked.directory;
  context.details = asked.details;
  context.requestDigest = crypto::sha256Hex(base::bytesOf(setting_.bytes));
  context.mayBeAnsweredTogether = rule == ApprovalRule::readSecret || rule == ApprovalRule::environmentRead;
  context.withdrawn = withdrawn();
  const ApprovalResult result = setting_.approvals.approve(question);
  if (result != ApprovalResult::denied && !isUnchanged()) {
    throw ApprovalRefused(
        "This agent connection was changed or removed while the owner was asked. Nothing was shared. Try again.");
  }
  return result;
}

bool ServerRequest::isUnchanged() {
  if (caller().kind == Caller::Kind::controller) return true;
  const auto grants = setting_.grants.current();
  const ClientGrant* const grant = findByTokenHash(*grants, caller().identity);
  return grant != nullptr && grant->environment == caller().scope && grant->allowReveal == caller().allowReveal;
}

}  // namespace sorvane::agent
