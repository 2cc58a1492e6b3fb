#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "proxy/price_book.h"
#include "proxy/refusal.h"
#include "proxy/route.h"
#include "proxy/usage.h"

namespace sorvane::proxy {

/// What the owner and the grant allow beyond the price book.
struct PlanRules {
  const std::optional<AllowedModels>& models;
  bool refuseUnknownFields;  ///< the owner's strict setting
  base::Date at;             ///< prices have dates
};

/// CallPlan is a checked body: what will be sent, what it may cost at worst, and what its answer is priced by.
struct CallPlan {
  std::string model;  ///< as the client wrote it
  std::string body;   ///< to send: the client's own bytes, but for a request for usage that was added
  bool streamed = false;
  Micros worstMicros = 0;                 ///< to be reserved
  std::string priceSource, priceVersion;  ///< for the call's record
  struct Terms;                           ///< prices and bounds; call_plan_terms.h
  std::shared_ptr<const Terms> terms;     ///< immutable
};

/// Checks a body against its operation and prices it at its worst, or says why it is not sent. Pure; any thread.
std::variant<CallPlan, ProxyRefusal> planCall(const ProxyRoute& route, std::string body, const PriceBook& prices,
                                              const PlanRules& rules);

/// How a call ended, as far as its charge goes.
enum class CallEnd {
  complete,  ///< the answer arrived to its end
  broken,    ///< sent, and the answer ended early or never came
};

/// What a call is charged.
struct CallCharge {
  Micros chargedMicros = 0;
  ProxyUsage usage;
  bool discrepancy = false;  ///< the provider reported more than was reserved
  bool estimated = false;    ///< not by a provider's own last report
};

/// AnswerMeter reads an answer as it passes: what the provider reports, and which bytes are the client's. One for each
/// call, used by the call's thread. Never throws for foreign bytes; its memory is bounded.
class AnswerMeter {
 public:
  explicit AnswerMeter(const CallPlan& plan);
  ~AnswerMeter();
  AnswerMeter(const AnswerMeter&) = delete;
  AnswerMeter& operator=(const AnswerMeter&) = delete;

  /// Once, before any byte. `contentType` as the provider wrote it.
  void head(int status, std::string_view contentType);
  /// Takes the next bytes of the body; returns those that go to the client now: a view of `bytes` where nothing is
  /// taken out, else of a buffer that is valid until the next call.
  std::string_view pass(std::string_view bytes);
  /// What was held back, at the end of the body.
  std::string_view rest();
  CallCharge charge(CallEnd end) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sorvane::proxy
