#include "proxy/forwarder.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "base/diagnostics.h"
#include "proxy/call_plan.h"
#include "proxy/call_plan_refusal.h"
#include "proxy/echo_mask.h"
#include "proxy/upstream_answer.h"
#include "proxy/upstream_failure.h"

namespace sorvane::proxy {
namespace {

/// Holds one slot until it is given back, at the latest at the end of its scope.
class Slot {
 public:
  Slot(CallSlots& slots, std::string lookupId) : slots_(slots), lookupId_(std::move(lookupId)) {}
  ~Slot() { giveBack(); }
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;
  void giveBack() {
    if (held_) slots_.leave(lookupId_);
    held_ = false;
  }

 private:
  CallSlots& slots_;
  const std::string lookupId_;
  bool held_ = true;
};

/// The refusal of a reservation that was not admitted.
std::optional<ProxyRefusal> refusalOf(const ProxyReservation& reservation) {
  if (const auto* const limited = std::get_if<RateLimited>(&reservation)) {
    return refusal::rateLimited(limited->retryAfterSeconds);
  }
  if (std::holds_alternative<OverBudget>(reservation)) return refusal::spendLimitReached();
  if (std::holds_alternative<Closed>(reservation)) return refusal::invalidKey();
  return std::nullopt;
}

}  // namespace

bool CallSlots::take(const std::string& lookupId, int most) {
  const base::Lock lock(mutex_);
  const auto found = taken_.find(lookupId);
  if ((found == taken_.end() ? 0 : found->second) >= most) return false;
  ++taken_[lookupId];
  return true;
}

void CallSlots::leave(const std::string& lookupId) {
  const base::Lock lock(mutex_);
  const auto found = taken_.find(lookupId);
  if (found != taken_.end() && --found->second == 0) taken_.erase(found);
}

/// One admitted call: from its reservation to its record.
class LocalProxyForwarder::Call {
 public:
  Call(const Parts& parts, const ProxyForwardRequest& request, CallPlan plan, ReservationId reservation, Slot& slot);
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  void run(const ProxyCredential& credential);

 private:
  void settle(CallEnd end);
  void release();
  CallOutcome outcomeOf(const UpstreamResult& result, const UpstreamAnswer& answer) const;
  void record(CallOutcome outcome, int status);

  const Parts& parts_;
  const ProxyForwardRequest& request_;
  const CallPlan plan_;
  const ReservationId reservation_;
  Slot& slot_;
  const base::Date at_;
  const base::Instant begun_;
  AnswerMeter meter_;
  bool open_ = true;       ///< neither settled nor released
  bool recorded_ = false;  ///< or handed to the log, which may have failed
  CallCharge charge_;
};

LocalProxyForwarder::Call::Call(const Parts& parts, const ProxyForwardRequest& request, CallPlan plan,
                                ReservationId reservation, Slot& slot)
    : parts_(parts),
      request_(request),
      plan_(std::move(plan)),
      reservation_(reservation),
      slot_(slot),
      at_(parts.clock.now()),
      begun_(parts.clock.instant()),
      meter_(plan_) {}

LocalProxyForwarder::Call::~Call() {
  if (!open_ && recorded_) return;
  // Only where the call ended in an exception: what is open is settled at the worst that it may have cost.
  try {
    if (open_) {
      charge_ = {};
      charge_.chargedMicros = plan_.worstMicros;
      parts_.meter.settle(request_.grant->lookupId, reservation_, plan_.worstMicros);
    }
    if (!recorded_) record(CallOutcome::failed, 0);
  } catch (const std::exception&) {
    base::diagnose("proxy", "A call could not be recorded: memory is short.");
  }
}

void LocalProxyForwarder::Call::settle(CallEnd end) {
  if (!open_) return;
  charge_ = meter_.charge(end);
  const std::string& grant = request_.grant->lookupId;
  // First, so that no call is admitted in between.
  if (charge_.discrepancy) parts_.meter.exhaust(grant);
  parts_.meter.settle(grant, reservation_, charge_.chargedMicros);
  open_ = false;
  slot_.giveBack();
}

void LocalProxyForwarder::Call::release() {
  if (!open_) return;
  parts_.meter.release(request_.grant->lookupId, reservation_);
  open_ = false;
  slot_.giveBack();
}

CallOutcome LocalProxyForwarder::Call::outcomeOf(const UpstreamResult& result, const UpstreamAnswer& answer) const {
  if (answer.finished()) return CallOutcome::completed;
  const ChannelEnd ended = request_.client.ended();
  if (ended == ChannelEnd::cut || request_.client.stopped().stop_requested()) return CallOutcome::cut;
  if (ended == ChannelEnd::clientGone || result.hungUp || !result.error) {
    return answer.hasEnough() ? CallOutcome::completed : CallOutcome::clientAborted;
  }
  switch (*result.error) {
    case ProxyTransportError::notSent:
      return CallOutcome::notSent;
    case ProxyTransportError::timedOut:
      return CallOutcome::timedOut;
    case ProxyTransportError::cancelled:
      return CallOutcome::clientAborted;
    case ProxyTransportError::mayHaveBeenSent:
    case ProxyTransportError::redirected:
      break;
  }
  return CallOutcome::failed;
}

void LocalProxyForwarder::Call::run(const ProxyCredential& credential) {
  EchoMask mask(credential.value);
  UpstreamAnswer answer(request_, meter_, mask, [this] { settle(CallEnd::complete); });
  const UpstreamRequest upstream = upstreamRequestOf(request_, credential, parts_.origins, plan_.body);
  const UpstreamResult result =
      parts_.transport.send(upstream, answer, {.stop = request_.client.stopped(), .client = request_.client.socket()});
  if (!result.error) {
    answer.end();
  } else if (result.sent) {
    settle(CallEnd::broken);
  } else {
    release();
  }
  const CallOutcome outcome = outcomeOf(result, answer);
  if (result.error && !answer.finished() && !result.hungUp) {
    answer.breakOff(proxy::refusalOf(result, request_.route.provider));
  }
  record(outcome, answer.status());
}

void LocalProxyForwarder::Call::record(CallOutcome outcome, int status) {
  const ProxyGrant& grant = *request_.grant;
  ProxyCallRecord record;
  record.requestId = request_.requestId;
  record.at = at_;
  record.grant = grant.lookupId;
  record.taskSessionId = grant.taskSessionId;
  record.environment = grant.environment;
  record.client = grant.client;
  record.provider = request_.route.provider;
  record.model = plan_.model;
  record.operation = request_.route.operation;
  record.streamed = plan_.streamed;
  record.outcome = outcome;
  record.status = status;
  record.latencyMs = std::chrono::duration_cast<std::chrono::milliseconds>(parts_.clock.instant() - begun_).count();
  record.usage = charge_.usage;
  record.reservedMicros = plan_.worstMicros;
  record.chargedMicros = charge_.chargedMicros;
  record.priceSource = plan_.priceSource;
  record.priceVersion = plan_.priceVersion;
  record.discrepancy = charge_.discrepancy;
  recorded_ = true;
  parts_.log.record(record);
}

void LocalProxyForwarder::forward(ProxyForwardRequest request) {
  try {
    admit(request);
  } catch (const std::exception&) {
    // Out of memory, or a fault of ours; a description could hold what the request held. What the client has of an
    // answer stays unfinished.
    base::diagnose("proxy", "A call was given up because of an internal failure.");
  }
}

void LocalProxyForwarder::admit(ProxyForwardRequest& request) {
  const ProxyGrant& grant = *request.grant;
  const auto credential = grant.credentials.find(request.route.provider);
  if (credential == grant.credentials.end()) return request.client.refuse(refusal::proxyUnavailable());
  if (!slots_.take(grant.lookupId, grant.limits.maxConcurrentCalls)) {
    return request.client.refuse(refusal::tooManyCalls());
  }
  Slot slot(slots_, grant.lookupId);
  const std::shared_ptr<const PriceBook> prices = parts_.prices();
  auto planned = planCall(
      request.route, std::move(request.body), *prices,
      {.models = grant.limits.models, .refuseUnknownFields = parts_.refuseUnknownFields(), .at = parts_.clock.now()});
  if (const auto* const refused = std::get_if<ProxyRefusal>(&planned)) return request.client.refuse(*refused);
  CallPlan& plan = std::get<CallPlan>(planned);
  // No wait and no other call's end would let it in.
  if (plan.worstMicros > grant.limits.budgetMicros) {
    return request.client.refuse(refusal::requestExceedsBudget(plan.worstMicros, grant.limits.budgetMicros));
  }
  const ProxyReservation reservation = parts_.meter.reserve(grant.lookupId, plan.worstMicros);
  if (const auto refused = refusalOf(reservation)) return request.client.refuse(*refused);
  Call(parts_, request, std::move(plan), std::get<Admitted>(reservation).id, slot).run(credential->second);
}

}  // namespace sorvane::proxy
