#include <deque>

#include "agent/owner_action_handlers.h"
#include "base/date.h"
#include "proxy/ledger_totals.h"

namespace sorvane::agent {
namespace {

constexpr std::int64_t kDefaultCalls = 20;
/// The owner's own prices fit into a request, also when every one of their bytes is escaped there.
constexpr std::size_t kMostPriceBytes = 32'000;
/// The calls of one answer: a few megabytes of it.
constexpr std::int64_t kMostCalls = 10'000;

std::optional<std::string> given(const ActionArguments& arguments, std::string_view name) {
  const auto text = arguments.text(name);
  return text && !text->empty() ? text : std::nullopt;
}

/// The last calls that a filter accepts, and what all of them came to.
struct Found {
  std::deque<std::string> last;
  proxy::LedgerTotals totals;
  std::int64_t accepted = 0, unreadable = 0;
};

Found find(OwnerProxy& proxy, const proxy::LedgerFilter& filter, std::size_t most, bool csv,
           std::vector<std::string>& notices) {
  Found found;
  notices = proxy
                .readLedger([&](std::string_view line) {
                  const auto record = proxy::decodeCall(line);
                  if (!record) ++found.unreadable;
                  if (!record || !filter.accepts(*record)) return;
                  found.totals.add(*record);
                  ++found.accepted;
                  found.last.push_back(csv ? proxy::csvLine(*record) : proxy::encodeCall(*record));
                  if (found.last.size() > most) found.last.pop_front();
                })
                .notices;
  if (found.unreadable > 0) {
    notices.push_back(std::to_string(found.unreadable) + (found.unreadable == 1 ? " line" : " lines") +
                      " of the proxy’s call ledger cannot be read and are left out of what is shown.");
  }
  return found;
}

AgentResponse asCsv(const Found& found, std::vector<std::string> notices) {
  if (found.accepted > static_cast<std::int64_t>(found.last.size())) {
    notices.push_back("Only the newest " + std::to_string(found.last.size()) + " of " + std::to_string(found.accepted) +
                      " calls are shown. Choose others with --since and --until.");
  }
  base::SecretText text(proxy::csvHead());
  for (const std::string& line : found.last) text.append(line);
  AgentResponse response = withValue(std::move(text));
  if (!notices.empty()) response.warnings = std::move(notices);
  return response;
}

AgentResponse asDocument(const Found& found, const std::vector<std::string>& notices, const vault::Records& records) {
  base::JsonWriter out;
  out.beginObject().key("calls").beginArray();
  for (const std::string& line : found.last) out.raw(line);
  out.endArray().key("totals");
  writeTotals(out, found.totals);
  out.key("environments").beginObject();
  for (const auto& [id, sum] : found.totals.byEnvironment()) {
    const vault::Project* const environment = records.projectById(id);
    if (environment != nullptr) out.field(id, environment->name);
  }
  out.endObject().strings("notices", notices).endObject();
  return withDocument(out);
}

void write(base::JsonWriter& out, const proxy::PriceRow& row) {
  const auto text = [&](const char* name, const std::string& value) {
    if (!value.empty()) out.field(name, value);
  };
  out.beginObject().field("provider", vault::word(row.provider)).field("model", row.model);
  if (!row.aliases.empty()) out.strings("aliases", row.aliases);
  text("from", row.from);
  text("to", row.to);
  if (row.promptAbove > 0) out.key("promptAbove").integer(row.promptAbove);
  text("input", row.input);
  text("cacheRead", row.cacheRead);
  text("output", row.output);
  text("write5m", row.write5m);
  text("write1h", row.write1h);
  text("write30m", row.write30m);
  text("write12h", row.write12h);
  text("source", row.source);
  text("checkedOn", row.checkedOn);
  text("origin", row.origin);
  text("version", row.version);
  out.endObject();
}

}  // namespace

ActionPlan OwnerActionHandlers::proxyLedger(const ActionArguments& arguments, ActionCall&) {
  const std::string format = given(arguments, "format").value_or("json");
  if (format != "json" && format != "csv") throw ActionError("Choose json or csv as the format.");
  const std::int64_t limit = arguments.integer("limit").value_or(format == "csv" ? kMostCalls : kDefaultCalls);
  if (limit < 0 || limit > kMostCalls) throw ActionError("Choose a limit from 0 to 10,000. Nothing was shown.");
  proxy::LedgerFilter filter;
  filter.since = arguments.date("since").value_or(std::nullopt);
  filter.until = arguments.date("until").value_or(std::nullopt);
  filter.grant = given(arguments, "grant");
  filter.client = given(arguments, "client");
  filter.model = given(arguments, "model");
  filter.environment = given(arguments, "environment");
  // An environment that is gone is still found by its id.
  if (filter.environment && !filter.environment->starts_with("proj_")) {
    filter.environment = projectNamed(arguments, "environment").id;
  }
  if (filter.grant && filter.grant->starts_with("qzt_local_")) filter.grant->erase(0, 10);
  return answer([this, filter, limit, csv = format == "csv"] {
    std::vector<std::string> notices;
    const Found found = find(runningProxy(), filter, static_cast<std::size_t>(limit), csv, notices);
    return csv ? asCsv(found, std::move(notices)) : asDocument(found, notices, *ports_.vault.records());
  });
}

ActionPlan OwnerActionHandlers::proxyPrices(const ActionArguments& arguments, ActionCall&) {
  const auto word = given(arguments, "provider"), model = given(arguments, "model");
  const auto provider = word ? vault::proxyProviderOf(*word) : std::nullopt;
  if (word && !provider) throw ActionError("Choose anthropic, openai or openrouter as the provider.");
  return answer([this, provider, model] {
    OwnerProxy& proxy = runningProxy();
    base::JsonWriter out;
    out.beginObject().key("prices").beginArray();
    for (const proxy::PriceRow& row : proxy.prices()) {
      const bool isNamed = !model || row.model.find(*model) != std::string::npos;
      if (isNamed && (!provider || row.provider == *provider)) write(out, row);
    }
    out.endArray().key("own").boolean(!proxy.ownPrices().empty()).endObject();
    return withDocument(out);
  });
}

ActionPlan OwnerActionHandlers::proxyPricesFetch(const ActionArguments& arguments, ActionCall& call) {
  OwnerProxy& proxy = runningProxy();
  return answer([this, &proxy, access = access(call, arguments), withdrawn = call.withdrawn()] {
    const std::string sentence = proxy.fetchPrices(withdrawn);
    ports_.vault.log(access);
    return withValue(base::SecretText(sentence));
  });
}

ActionPlan OwnerActionHandlers::proxyPricesOverride(const ActionArguments& arguments, ActionCall& call) {
  OwnerProxy& proxy = runningProxy();
  const std::string prices(call.value ? call.value->view() : std::string_view());
  if (prices.size() > kMostPriceBytes) throw ActionError("Prices may be at most 32,000 bytes. Nothing was changed.");
  std::vector<std::string> details{"Calls are charged by these prices, and budgets hold only as well as they do."};
  if (prices.empty()) {
    details = {"The prices that came with sorvane hold again."};
  } else {
    proxy::PriceBook book;
    if (const auto problem = book.add(prices)) throw ActionError(*problem + " Nothing was changed.");
    constexpr std::size_t kShown = 10;
    const auto rows = book.rows();
    for (std::size_t i = 0; i < rows.size() && i < kShown; ++i) {
      details.push_back(std::string(vault::word(rows[i].provider)) + ":" + rows[i].model + ", input $" + rows[i].input +
                        ", output $" + rows[i].output + " for a million tokens.");
    }
    if (rows.size() > kShown) details.push_back("And " + std::to_string(rows.size() - kShown) + " more.");
  }
  return asking(
      call, prices.empty() ? "remove your own prices of models" : "use your own prices of models",
      [this, &proxy, prices, access = access(call, arguments)] {
        proxy.setOwnPrices(prices);
        ports_.vault.log(access);
        return withValue(base::SecretText(prices.empty() ? "Your own prices are removed."
                                                         : "Your own prices are in force for calls from now on."));
      },
      std::move(details));
}

}  // namespace sorvane::agent
