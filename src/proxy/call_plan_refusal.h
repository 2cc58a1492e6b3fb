#pragma once

#include <cstdint>
#include <string_view>

#include "proxy/body_reader.h"
#include "proxy/money.h"
#include "proxy/refusal.h"

/// What planCall refuses with, each a whole sentence that says that nothing was sent and what to do.
namespace sorvane::proxy::refusal {

/// "duplicate_key" for a key that stands twice, else "invalid_body". `problem` is not `none`.
ProxyRefusal unreadableBody(BodyProblem problem);
/// "invalid_body": `field` is missing or of another type; empty for the body itself.
ProxyRefusal invalidField(std::string_view field);
ProxyRefusal modelNotAllowed(std::string_view model);
ProxyRefusal modelNotPriced(std::string_view model);
/// `what` is named in the sentence: "a tool of the type \"mcp\"".
ProxyRefusal operationNotSupported(std::string_view what);
ProxyRefusal maxTokensRequired(std::string_view field);
ProxyRefusal requestExceedsLimit();
/// Also "request_exceeds_limit": alone, the request could cost more than the whole budget.
ProxyRefusal requestExceedsBudget(Micros worst, Micros budget);

}  // namespace sorvane::proxy::refusal
