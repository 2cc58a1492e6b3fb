#include <nlohmann/json.hpp>

#include "base/unicode.h"
#include "cli/commands.h"
#include "cli/confirmation.h"
#include "cli/output.h"
#include "cli/proxy_output.h"
#include "cli/quantities.h"

namespace sorvane::cli {
namespace {

constexpr std::string_view kUnchanged = "Nothing was changed.";

int said(Session& session, const agent::AgentResponse& response) {
  const std::string sentence(valueOf(response).view());
  session.options().json ? printJson({{"ok", true}, {"value", sentence}}) : note(sentence);
  return 0;
}

int protect(Session& session, Session::Arguments arguments) {
  try {
    return said(session, session.manage("proxyProtect", arguments, Session::Asks::no));
  } catch (const Failure& failure) {
    if (failure.code() != "provider_unclear" || !canAsk(session.options())) throw;
  }
  const auto typed =
      typedLine("Which provider is the key '" + arguments["name"] + "' for: anthropic, openai or openrouter? ");
  arguments["provider"] = base::trimmed(typed.value_or(""));
  if (arguments["provider"].empty()) throw Failure(kFailed, "no_value", "No provider was named. Nothing was changed.");
  return said(session, session.manage("proxyProtect", arguments, Session::Asks::no));
}

/// Sends an action whose answer is a sentence.
Action sentence(std::string name, std::shared_ptr<Given> given, Session::Asks asks) {
  return [=](Session& session) { return said(session, session.manage(name, given->arguments, asks)); };
}

int status(Session& session) {
  const base::Json document = session.read("proxyStatus");
  session.options().json ? printJson(document) : printProxyStatus(document);
  return 0;
}

/// Changes as they were typed; each is read when the command runs, where a failure can be told.
struct LimitsGiven {
  Given plain;
  std::vector<std::function<void(Session::Arguments&)>> typed;
};

int limits(Session& session, const LimitsGiven& given) {
  Session::Arguments arguments = given.plain.arguments;
  for (const auto& change : given.typed) change(arguments);
  if (arguments.empty()) {
    const base::Json document = session.read("proxyLimitsGet");
    session.options().json ? printJson(document) : printProxyLimits(document);
    return 0;
  }
  const auto response = session.manage("proxyLimitsSet", arguments, Session::Asks::yes);
  const auto document = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!document || !document->is_object()) throw notUnderstood();
  if (session.options().json) return printJson(*document), 0;
  printProxyLimits(*document);
  note("These limits hold for sessions and runs that begin from now on.");
  return 0;
}

struct LedgerGiven {
  Given filter;
  std::string by;
  bool csv = false;
};

int ledger(Session& session, const LedgerGiven& given) {
  Session::Arguments arguments = given.filter.arguments;
  for (const char* const end : {"since", "until"}) {
    if (arguments.contains(end)) arguments[end] = dateIn(arguments[end]);
  }
  if (given.csv) {
    arguments["format"] = "csv";
    const auto response = session.manage("proxyLedger", std::move(arguments), Session::Asks::no);
    print(valueOf(response).view());
    for (const std::string& notice : response.warnings.value_or(std::vector<std::string>{})) note(notice);
    return 0;
  }
  const base::Json document = session.read("proxyLedger", std::move(arguments));
  session.options().json ? printJson(document) : printProxyCalls(document, given.by);
  return 0;
}

int prices(Session& session, const Session::Arguments& arguments) {
  const base::Json document = session.read("proxyPrices", arguments);
  session.options().json ? printJson(document) : printProxyPrices(document);
  return 0;
}

int ownPrices(Session& session, const std::string& file) {
  base::SecretText text;
  if (!file.empty()) text = textOfFile(file);
  return said(session, session.manage("proxyPricesOverride", {}, Session::Asks::yes, std::move(text)));
}

/// An option that is turned into the payload's form by `convert`.
template <typename Convert>
void converted(CLI::App& command, const std::shared_ptr<LimitsGiven>& given, const char* option, const char* help,
               const Convert& convert) {
  command.add_option_function<std::string>(
      option,
      [given, convert](const std::string& text) {
        given->typed.push_back([convert, text](Session::Arguments& to) { convert(to, text); });
      },
      help);
}

void addLimitOptions(CLI::App& command, const std::shared_ptr<LimitsGiven>& given) {
  using Arguments = Session::Arguments;
  converted(
      command, given, "--budget", "What a session may spend, in dollars, such as 5 or 0.50",
      [](Arguments& to, const std::string& text) { to["budgetCents"] = std::to_string(centsIn(text, kUnchanged)); });
  converted(command, given, "--ceiling", "The most that an agent may ask for, in dollars",
            [](Arguments& to, const std::string& text) {
              to["budgetCeilingCents"] = std::to_string(centsIn(text, kUnchanged));
            });
  converted(command, given, "--longest", "The longest session with a protected key: 90m, 8h, at most 7d",
            [](Arguments& to, const std::string& text) {
              to["longestSessionSeconds"] = std::to_string(secondsIn(text, kUnchanged));
            });
  converted(command, given, "--rate", "Requests a minute",
            [](Arguments& to, const std::string& text) { to["requestsPerMinute"] = text; });
  converted(
      command, given, "--body", "The largest request, such as 64KB or 32MB",
      [](Arguments& to, const std::string& text) { to["maxBodyBytes"] = std::to_string(bytesIn(text, kUnchanged)); });
  converted(command, given, "--velocity",
            "Pause a stand-in that spends so many cents within a minute, and ask; off for never",
            [](Arguments& to, const std::string& text) {
              to["velocityCents"] = text == "off"           ? ""
                                    : text.starts_with('$') ? std::to_string(centsIn(text, kUnchanged))
                                                            : text;
            });
  converted(command, given, "--authority",
            "A file of certificates (PEM) that may vouch for providers too; none for none",
            [](Arguments& to, const std::string& text) {
              to["authority"] = text == "none" ? "" : std::string(textOfFile(text).view());
            });
  converted(command, given, "--outbound-proxy", "Reach providers through http://host:port; none for none",
            [](Arguments& to, const std::string& text) { to["outboundProxy"] = text == "none" ? "" : text; });
  given->plain.onOff(command, "--strict", "strict", "Refuse requests with fields that sorvane does not know");
  command
      .add_option_function<std::vector<std::string>>(
          "--model",
          [given](const std::vector<std::string>& items) {
            const bool any = items.size() == 1 && items[0] == "any";
            given->plain.arguments["models"] = any ? "[]" : listArgument(items);
          },
          "A model that may be used, such as anthropic:claude-x; may be repeated, any for all with a price")
      ->allow_extra_args(false);
}

}  // namespace

void Commands::addProtect(CLI::App& app) {
  const auto given = std::make_shared<Given>();
  CLI::App& command = *app.add_subcommand(
      "protect",
      "Keep a provider's key inside sorvane: programs get a stand-in with a budget.\nExample: sorvane protect "
      "ANTHROPIC_API_KEY");
  given->text(command, "name", "name", "Name of the secret")->required();
  given->text(command, "--provider", "provider", "anthropic, openai or openrouter; told by the key when absent");
  command.callback(
      [this, given] { action = [given](Session& session) { return protect(session, given->arguments); }; });
}

void Commands::addUnprotect(CLI::App& app) {
  const auto given = std::make_shared<Given>();
  CLI::App& command = *app.add_subcommand(
      "unprotect", "Give programs the real key again (asks). Every program with its environment gets it; sessions end");
  given->text(command, "name", "name", "Name of the secret")->required();
  command.callback([this, given] { action = sentence("proxyUnprotect", given, Session::Asks::yes); });
}

namespace {

void addLedgerCommand(Commands& commands, CLI::App& group) {
  const auto given = std::make_shared<LedgerGiven>();
  CLI::App& command = *group.add_subcommand(
      "ledger",
      "The calls that went through the proxy, and what they came to.\nExample: sorvane proxy ledger --since 7d "
      "--by model");
  Given& filter = given->filter;
  filter.text(command, "--since", "since", "From 2026-11-21, 2026-11-21T10:00:00Z or 7d ago on");
  filter.text(command, "--until", "until", "Before that, in the same forms");
  filter.text(command, "--grant", "grant", "Calls of one stand-in, by its whole id");
  filter.text(command, "--client", "client", "Calls of one agent client");
  filter.text(command, "--env", "environment", "Calls of one environment, by its name, or its id when it is gone");
  filter.text(command, "--model", "model", "Calls of one model, such as anthropic:claude-x");
  filter.text(command, "--limit", "limit", "How many of the last calls to show; 20 when absent, all with --csv");
  command.add_option("--by", given->by, "Totals in place of calls: day, client, environment or model")
      ->check(CLI::IsMember({"day", "client", "environment", "model"}));
  command.add_flag("--csv", given->csv, "Every call as a line of CSV");
  command.callback(
      [&commands, given] { commands.action = [given](Session& session) { return ledger(session, *given); }; });
}

void addPriceCommands(Commands& commands, CLI::App& group) {
  CLI::App& command = *group.add_subcommand("prices", "What models cost, in dollars for a million tokens");
  command.require_subcommand(0, 1);
  const auto given = std::make_shared<Given>();
  given->text(command, "--provider", "provider", "anthropic, openai or openrouter");
  given->text(command, "--model", "model", "Models whose name holds this text");
  const auto file = std::make_shared<std::string>();
  const auto none = std::make_shared<Given>();
  command.add_subcommand("fetch", "Fetch OpenRouter's list of prices and keep it")->callback([&commands, none] {
    commands.action = sentence("proxyPricesFetch", none, Session::Asks::no);
  });
  CLI::App& own = *command.add_subcommand("set", "Use your own prices, over those that came with sorvane (asks)");
  own.add_option("file", *file, "A file as docs/prices.md describes it; - for standard input")->required();
  own.callback([&commands, file] { commands.action = [file](Session& session) { return ownPrices(session, *file); }; });
  command.add_subcommand("clear", "Remove your own prices (asks)")->callback([&commands] {
    commands.action = [](Session& session) { return ownPrices(session, ""); };
  });
  command.callback([&commands, given] {
    if (!commands.action) commands.action = [given](Session& session) { return prices(session, given->arguments); };
  });
}

}  // namespace

void Commands::addProxy(CLI::App& app) {
  CLI::App& group = *app.add_subcommand("proxy", "The local proxy that stands in for protected keys");
  group.require_subcommand(1);
  group.add_subcommand("status", "Protected keys, live stand-ins and what they spent")->callback([this] {
    action = status;
  });
  const auto given = std::make_shared<LimitsGiven>();
  CLI::App& limiting = *group.add_subcommand(
      "limits",
      "Show the limits of new stand-ins, or set them (raising one asks).\nExample: sorvane proxy limits --budget "
      "5 --ceiling 50 --longest 8h --rate 120 --body 32MB");
  addLimitOptions(limiting, given);
  limiting.callback([this, given] { action = [given](Session& session) { return limits(session, *given); }; });
  addLedgerCommand(*this, group);
  addPriceCommands(*this, group);
  group.add_subcommand("confirm", "Confirm settings of protected keys that were changed from outside (asks)")
      ->callback([this] { action = sentence("proxyConfirm", std::make_shared<Given>(), Session::Asks::yes); });
  const auto id = std::make_shared<Given>();
  for (const auto& [name, sent, asks, help] :
       {std::tuple{"resume", "proxyResume", Session::Asks::yes, "Let a paused stand-in go on (asks)"},
        std::tuple{"end", "proxyEndGrant", Session::Asks::no, "End a stand-in; calls with it are refused at once"}}) {
    CLI::App& command = *group.add_subcommand(name, help);
    id->text(command, "id", "id", "Its id, or the first characters")->required();
    command.callback([this, id, sent = std::string(sent), asks = asks] { action = sentence(sent, id, asks); });
  }
}

}  // namespace sorvane::cli
