#include "cli/menu.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "cli/output.h"

namespace sorvane::cli {
namespace {

/// The place in a list that was typed, from 0; nullopt when it is none of `count`.
std::optional<std::size_t> placeOf(std::string_view typed, std::size_t count) {
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(typed.data(), typed.data() + typed.size(), number);
  if (error != std::errc() || end != typed.data() + typed.size() || number < 1 || number > count) return std::nullopt;
  return number - 1;
}

std::string numbered(std::size_t place, const std::string& text) {
  return "  " + std::to_string(place + 1) + ". " + text;
}

}  // namespace

void Menu::sayFailure(const Failure& failure) const {
  if (failure.code() == "approval_denied") return say("The owner said no, or did not answer. Nothing was changed.");
  say(failure.sentence());
}

void Menu::screen(const std::string& title, const std::function<std::vector<Choice>()>& fill,
                  std::string_view enter) const {
  for (;;) {
    dialog_.blank();
    say(title);
    try {
      std::vector<Choice> choices;
      try {
        choices = fill();
      } catch (const Failure& failure) {
        sayFailure(failure);
        choices = {{"Try again", [] { return Then::stay; }}};
      }
      for (std::size_t i = 0; i < choices.size(); ++i) say(numbered(i, choices[i].text), 6);
      if (pick(choices, enter) == Then::back) return;
    } catch (const Failure& failure) {
      sayFailure(failure);
    } catch (const base::Error& error) {
      say(error.sentence());
    } catch (const Cancelled&) {
      say("Nothing was changed.");
    }
  }
}

Then Menu::pick(const std::vector<Choice>& choices, std::string_view enter) const {
  for (;;) {
    const std::string typed = dialog_.ask("Choice (Enter: " + std::string(enter) + "):");
    if (typed.empty()) return Then::back;
    if (const auto place = placeOf(typed, choices.size())) return choices[*place].act();
    const auto named =
        std::find_if(choices.begin(), choices.end(), [&](const Choice& choice) { return choice.name == typed; });
    if (named != choices.end()) return named->act();
    say("There is no choice '" + typed + "'. Type a number from 1 to " + std::to_string(choices.size()) +
        ", or press Enter alone.");
  }
}

std::string Menu::text(const std::string& what) const {
  std::string typed = dialog_.ask(what + " (Enter: cancel):");
  if (typed.empty()) throw Cancelled();
  return typed;
}

std::optional<std::string> Menu::optionalText(const std::string& what, const std::string& enter) const {
  std::string typed = dialog_.ask(what + " (Enter: " + enter + "):");
  if (typed.empty()) return std::nullopt;
  return typed;
}

bool Menu::yes(const std::string& question) const {
  const std::string typed = dialog_.ask(question + " [y/N]");
  return typed == "y" || typed == "Y" || typed == "yes";
}

std::optional<std::string> Menu::oneOf(const std::string& what, const std::vector<std::string>& items,
                                       const std::string& enter) const {
  say(what + ":");
  for (std::size_t i = 0; i < items.size(); ++i) say(numbered(i, items[i]), 6);
  for (;;) {
    const std::string typed = dialog_.ask("Choice (Enter: " + enter + "):");
    if (typed.empty()) return std::nullopt;
    if (const auto place = placeOf(typed, items.size())) return items[*place];
    if (std::find(items.begin(), items.end(), typed) != items.end()) return typed;
    say("'" + typed + "' is none of these. Type its number or its name, or press Enter alone.");
  }
}

std::string Menu::oneOf(const std::string& what, const std::vector<std::string>& items) const {
  auto item = oneOf(what, items, "cancel");
  if (!item) throw Cancelled();
  return std::move(*item);
}

base::Json Menu::read(std::string_view action, Session::Arguments arguments) const {
  return session().read(action, std::move(arguments));
}

void Menu::change(std::string_view action, Session::Arguments arguments, Session::Asks asks, std::string_view done,
                  std::optional<base::SecretText> value) const {
  const auto response = session().manage(action, std::move(arguments), asks, std::move(value));
  say(done.empty() ? valueOf(response).view() : done);
}

std::vector<std::string> Menu::names(std::string_view action, const char* list) const {
  std::vector<std::string> found;
  const base::Json document = read(action);
  for (const base::Json& item : items(document, list)) found.push_back(cell(item, "name"));
  return found;
}

std::string Menu::someSecret() const {
  const auto all = names("secretList", "secrets");
  if (all.empty()) throw Failure(kFailed, "none", "There are no secrets yet. Add one under Secrets first.");
  return oneOf("Which secret", all);
}

std::string Menu::someEnvironment() const {
  const auto all = names("environmentList", "environments");
  if (all.empty()) throw Failure(kFailed, "none", "There are no environments yet. Make one under Environments first.");
  return oneOf("Which environment", all);
}

std::optional<std::string> Menu::environmentOrAll() const {
  return oneOf("Which environment it may use", names("environmentList", "environments"), "every environment");
}

std::string Menu::target(const std::string& enter) const {
  return oneOf("Which deployment target", {"development", "staging", "production"}, enter).value_or("");
}

int runMenu(const Options& options) {
  const Menu menu(options);
  bool greeted = false;
  const auto fill = [&]() -> std::vector<Choice> {
    base::Json status;
    try {
      status = menu.read("status");
    } catch (const Failure& failure) {
      if (failure.code() != "locked") throw;
      return lockedChoices(menu);
    }
    if (!greeted) {
      menu.say("sorvaned " + cell(status, "version") + " serves the vault in " + cell(status, "supportFolder") + ".");
      menu.say("What asks for your yes asks on the terminal where sorvaned runs.");
      for (const base::Json& notice : items(status, "notices")) menu.say(notice.get<std::string>());
      greeted = true;
    }
    if (!status.value("vaultOpen", false)) menu.say("The vault is closed: " + cell(status, "storageFailure"));
    const auto opens = [&menu](void (*show)(const Menu&)) { return [&menu, show] { return show(menu), Then::stay; }; };
    return {{"Secrets", opens(showSecrets)},
            {"Environments", opens(showEnvironments)},
            {"Agent connections", opens(showConnections)},
            {"Task sessions", opens(showTaskSessions)},
            {"Log", opens(showLog)},
            {"Settings", opens(showSettings)}};
  };
  try {
    menu.screen("sorvane", fill, "leave");
  } catch (const EndOfInput&) {
  }
  return 0;
}

}  // namespace sorvane::cli
