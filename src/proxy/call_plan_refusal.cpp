#include "proxy/call_plan_refusal.h"

#include <string>
#include <utility>

#include "base/unicode.h"
#include "proxy/body_facts.h"

namespace sorvane::proxy {

std::string shownWord(std::string_view word) {
  constexpr std::size_t kMostShown = 64;
  const std::string_view shown = base::prefixOfWholeCharacters(word, kMostShown);
  return base::escapedForDisplay(shown) + (shown.size() < word.size() ? "…" : "");
}

}  // namespace sorvane::proxy

namespace sorvane::proxy::refusal {
namespace {

using Kind = ProxyRefusal::Kind;

ProxyRefusal invalid(std::string code, std::string message) {
  return {400, Kind::invalidRequest, std::move(code), std::move(message), {}};
}

std::string modelText(std::string_view model) {
  return "\"" + shownWord(model) + "\"";
}

}  // namespace

ProxyRefusal unreadableBody(BodyProblem problem) {
  switch (problem) {
    case BodyProblem::none:
    case BodyProblem::malformed:
      break;
    case BodyProblem::notUtf8:
      return invalid("invalid_body", "The request body is not UTF-8. Nothing was sent. Send JSON as UTF-8.");
    case BodyProblem::tooDeep:
      return invalid("invalid_body", "The request body is nested too deeply. Nothing was sent. Send at most " +
                                         std::to_string(kMostBodyDepth) + " levels of objects and arrays.");
    case BodyProblem::duplicateKey:
      return invalid("duplicate_key",
                     "The request body names a key twice in one object. Nothing was sent. Name each key once.");
  }
  return invalid("invalid_body", "The request body is not valid JSON. Nothing was sent. Send one JSON object.");
}

ProxyRefusal invalidField(std::string_view field) {
  if (field.empty()) return unreadableBody(BodyProblem::malformed);
  return invalid("invalid_body", "The field `" + std::string(field) +
                                     "` is missing from the request body or is not of the type it has. Nothing was "
                                     "sent. Correct the field.");
}

ProxyRefusal modelNotAllowed(std::string_view model) {
  return {
      403,
      Kind::permission,
      "model_not_allowed",
      "The model " + modelText(model) +
          " is not among those this sorvane key may use. Nothing was sent. Use an allowed model, or ask the user to "
          "allow this one in sorvane.",
      {}};
}

ProxyRefusal modelNotPriced(std::string_view model) {
  return invalid(
      "model_not_priced",
      "sorvane has no price for the model " + modelText(model) +
          ". Nothing was sent. Use a model that `sorvane proxy prices` lists, or ask the user to add a price "
          "for this one.");
}

ProxyRefusal operationNotSupported(std::string_view what) {
  return invalid("operation_not_supported", "sorvane cannot tell in advance what " + std::string(what) +
                                                " may cost. Nothing was sent. Leave it out of the request.");
}

ProxyRefusal maxTokensRequired(std::string_view field) {
  return invalid("max_tokens_required", "The request sets no limit of output tokens. Nothing was sent. Set `" +
                                            std::string(field) + "`, so that sorvane knows what the call may cost.");
}

ProxyRefusal requestExceedsLimit() {
  return {
      402,
      Kind::spendLimit,
      "request_exceeds_limit",
      "This request could cost more than any single call may. Nothing was sent. Lower its limit of output tokens or "
      "its number of choices.",
      {}};
}

ProxyRefusal requestExceedsBudget(Micros worst, Micros budget) {
  return {402,
          Kind::spendLimit,
          "request_exceeds_limit",
          "This request could cost up to " + dollarsOf(centsOf(worst)) +
              ", which is more than the whole budget of this sorvane key (" + dollarsOf(budget / kMicrosPerCent) +
              "). Nothing was sent. Set a smaller limit of output tokens or shorten the request, or ask the user for a "
              "higher budget in sorvane.",
          {}};
}

}  // namespace sorvane::proxy::refusal
