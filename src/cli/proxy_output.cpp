#include "cli/proxy_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>

#include "base/date.h"
#include "base/descriptor.h"
#include "base/unicode.h"
#include "cli/output.h"
#include "cli/quantities.h"
#include "cli/session.h"

namespace sorvane::cli {
namespace {

using base::Json;

/// Larger than what a request takes, so that the refusal tells the size.
constexpr std::size_t kMostFileBytes = 1'048'576;
constexpr std::int64_t kMicrosPerCent = 10'000;

std::int64_t number(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_number_integer() ? found->get<std::int64_t>() : 0;
}

std::string centsInWords(std::int64_t cents) {
  return dollarsInWords(cents * kMicrosPerCent);
}

void sayNotices(const Json& document) {
  for (const Json& notice : items(document, "notices")) note(notice.get<std::string>());
}

std::string secondsInWords(std::int64_t seconds) {
  for (const auto& [unit, length] : {std::pair{"d", 86'400}, std::pair{"h", 3'600}, std::pair{"m", 60}}) {
    if (seconds % length == 0) return std::to_string(seconds / length) + unit;
  }
  return std::to_string(seconds) + "s";
}

std::string bytesInWords(std::int64_t bytes) {
  for (const auto& [unit, size] : {std::pair{"MB", 1'048'576}, std::pair{"KB", 1'024}}) {
    if (bytes % size == 0) return std::to_string(bytes / size) + unit;
  }
  return std::to_string(bytes) + " bytes";
}

std::string modelsInWords(const Json& limits) {
  if (!limits.contains("models")) return "any with a price";
  std::string text;
  for (const auto& [provider, names] : limits["models"].items()) {
    for (const Json& name : names)
      text.append(text.empty() ? "" : ", ").append(provider + ":" + name.get<std::string>());
  }
  return text.empty() ? "none" : text;
}

std::string environmentNamed(const Json& document, const std::string& id) {
  const auto names = document.find("environments");
  const bool known = names != document.end() && names->contains(id);
  return known ? cell(*names, id.c_str()) : id;
}

void printTotals(const Json& document, const std::string& by) {
  const std::string list = by == "day"      ? "byDay"
                           : by == "client" ? "byClient"
                           : by == "model"  ? "byModel"
                                            : "byEnvironment";
  std::vector<std::vector<std::string>> rows;
  for (const Json& sum : items(document["totals"], list.c_str())) {
    const std::string key = cell(sum, "key");
    rows.push_back({by == "environment" ? environmentNamed(document, key) : key, cell(sum, "calls"),
                    cell(sum, "inputTokens"), cell(sum, "outputTokens"), dollarsInWords(number(sum, "chargedMicros"))});
  }
  std::string heading;
  for (const char c : by) heading += static_cast<char>(c - 'a' + 'A');
  printTable({heading, "CALLS", "TOKENS IN", "TOKENS OUT", "COST"}, rows);
}

std::string endedInWords(const Json& call) {
  const std::string outcome = cell(call, "outcome"), status = cell(call, "status");
  return outcome == "completed" ? status : outcome;
}

}  // namespace

void printProxyStatus(const Json& document) {
  const bool listening = document.value("listening", false);
  printLine(listening ? "The local proxy listens on port " + cell(document, "port") + "."
                      : "The local proxy does not run; it does while a key is protected.");
  std::vector<std::vector<std::string>> keys, standIns;
  for (const Json& key : items(document, "keys")) {
    const std::string name = key.contains("secret") ? cell(key, "secret") : cell(key, "secretId") + " (deleted)";
    keys.push_back({name, cell(key, "provider"), cell(key, "environments")});
  }
  if (keys.empty()) {
    printLine("No key is protected. sorvane protect NAME protects one.");
  } else {
    printLine("");
    printTable({"PROTECTED KEY", "PROVIDER", "ENVIRONMENTS"}, keys);
  }
  for (const Json& one : items(document, "standIns")) {
    standIns.push_back({cell(one, "display"), cell(one, "client"), cell(one, "environment"),
                        centsInWords(number(one, "spentCents")) + " of " + centsInWords(number(one, "budgetCents")),
                        cell(one, "calls"), cell(one, "expiresAt"), one.value("paused", false) ? "paused" : ""});
  }
  if (!standIns.empty()) {
    printLine("");
    printTable({"STAND-IN", "CLIENT", "ENVIRONMENT", "SPENT", "CALLS", "UNTIL", "STATE"}, standIns);
  }
  sayNotices(document);
}

void printProxyLimits(const Json& document) {
  const Json limits = document.value("limits", Json::object());
  const bool strict = document.value("refuseUnknownFields", false);
  printTable({"LIMIT", "VALUE", "OPTION"},
             {{"Budget of a session", centsInWords(number(limits, "budgetCents")), "--budget"},
              {"The most an agent may ask for", centsInWords(number(limits, "budgetCeilingCents")), "--ceiling"},
              {"Longest session", secondsInWords(number(limits, "longestSessionSeconds")), "--longest"},
              {"Requests a minute", cell(limits, "requestsPerMinute"), "--rate"},
              {"Largest request", bytesInWords(number(limits, "maxBodyBytes")), "--body"},
              {"Models", modelsInWords(limits), "--model"},
              {"Unknown fields of requests", strict ? "refused" : "passed on", "--strict"},
              {"Pause at, within a minute",
               document.contains("velocityCentsPerMinute") ? centsInWords(number(document, "velocityCentsPerMinute"))
                                                           : "never",
               "--velocity"},
              {"Authority beside the system's", document.contains("authorityPem") ? "yes" : "none", "--authority"},
              {"Outbound proxy", document.contains("outboundProxy") ? cell(document, "outboundProxy") : "none",
               "--outbound-proxy"}});
}

void printProxyCalls(const Json& document, const std::string& by) {
  const Json all = document.value("totals", Json::object()).value("all", Json::object());
  if (!by.empty()) {
    if (number(all, "calls") > 0) printTotals(document, by);
  } else if (!items(document, "calls").empty()) {
    std::vector<std::vector<std::string>> rows;
    for (const Json& call : items(document, "calls")) {
      const Json usage = call.value("usage", Json::object());
      rows.push_back({cell(call, "at"), cell(call, "client"), environmentNamed(document, cell(call, "environment")),
                      cell(call, "model"), endedInWords(call), cell(usage, "inputTokens"), cell(usage, "outputTokens"),
                      dollarsInWords(number(call, "chargedMicros")),
                      call.value("discrepancy", false) ? "discrepancy" : ""});
    }
    printTable({"AT", "CLIENT", "ENVIRONMENT", "MODEL", "ENDED", "IN", "OUT", "COST", ""}, rows);
  }
  const std::int64_t calls = number(all, "calls");
  printLine(calls == 0 ? "No such call is recorded."
                       : cell(all, "calls") + (calls == 1 ? " call" : " calls") + " came to " +
                             dollarsInWords(number(all, "chargedMicros")) + ".");
  sayNotices(document);
}

void printProxyPrices(const Json& document) {
  std::vector<std::vector<std::string>> rows;
  for (const Json& row : items(document, "prices")) {
    const std::string above = row.contains("promptAbove") ? " above " + cell(row, "promptAbove") : "";
    std::string dates = cell(row, "from");
    if (row.contains("to")) dates += " to " + cell(row, "to");
    rows.push_back({cell(row, "provider") + ":" + cell(row, "model") + above, cell(row, "input"),
                    cell(row, "cacheRead"), cell(row, "output"), dates, cell(row, "origin")});
  }
  if (rows.empty()) return printLine("No such model has a price, so calls to it are refused.");
  printTable({"MODEL", "INPUT", "CACHE READ", "OUTPUT", "FROM", "ORIGIN"}, rows);
}

std::string dateIn(const std::string& text) {
  if (base::parseIso8601(text)) return text;
  const std::string midnight = text + "T00:00:00Z";
  if (base::parseIso8601(midnight)) return midnight;
  if (text.find('-') != std::string::npos) {
    throw Failure(kUsage, "usage", "'" + text + "' is no date. Write 2026-11-21, 2026-11-21T10:00:00Z or 7d.");
  }
  const std::int64_t ago = secondsIn(text, "Or write a date, such as 2026-11-21.");
  return base::iso8601(base::SystemClock().now() - std::chrono::seconds(ago));
}

base::SecretText textOfFile(const std::string& file) {
  const auto failed = [&](int number) {
    return Failure(
        kFailed, "not_read",
        "'" + file + "' could not be read (" + std::system_category().message(number) + "). Nothing was changed.");
  };
  const base::Descriptor opened(file == "-" ? ::dup(STDIN_FILENO) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!opened) throw failed(errno);
  base::SecretText text;
  char piece[16'384];
  while (text.size() <= kMostFileBytes) {
    const ssize_t got = ::read(opened.get(), piece, sizeof piece);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw failed(errno);
    if (got == 0) return text;
    text.append({piece, static_cast<std::size_t>(got)});
  }
  throw failed(EFBIG);
}

}  // namespace sorvane::cli
