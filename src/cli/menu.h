#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/dialog.h"
#include "cli/session.h"

namespace sorvane::cli {

/// Whether a screen stays after a choice or gives way to the one before.
enum class Then { stay, back };

/// The person pressed Enter where something was needed.
struct Cancelled {};

struct Choice {
  std::string text;
  std::function<Then()> act;
  std::string name = {};  ///< may be typed in place of the number
};

/// Menu is what the screens are made of: numbered choices, questions, and requests to sorvaned. A request goes over a
/// connection of its own, so that sorvaned may be started anew in between.
class Menu {
 public:
  explicit Menu(const Options& options) : options_(options) {}

  const Options& options() const { return options_; }
  void say(std::string_view text, std::size_t indent = 0) const { dialog_.say(text, indent); }
  /// Shows the title, what `fill` says, and the choices that it returns, until one gives way or Enter is pressed.
  /// Failures are said, and the screen goes on.
  void screen(const std::string& title, const std::function<std::vector<Choice>()>& fill,
              std::string_view enter = "back") const;

  /// Typed text that is not empty; throws Cancelled.
  std::string text(const std::string& what) const;
  /// Typed text; nullopt for Enter alone.
  std::optional<std::string> optionalText(const std::string& what, const std::string& enter) const;
  /// "y" or "yes"; everything else is no.
  bool yes(const std::string& question) const;
  /// One of the items; nullopt for Enter alone, which stands for `enter`.
  std::optional<std::string> oneOf(const std::string& what, const std::vector<std::string>& items,
                                   const std::string& enter) const;
  /// One of the items; throws Cancelled.
  std::string oneOf(const std::string& what, const std::vector<std::string>& items) const;

  base::Json read(std::string_view action, Session::Arguments arguments = {}) const;
  /// Sends an action and says the sentence that came back, or `done`.
  void change(std::string_view action, Session::Arguments arguments, Session::Asks asks, std::string_view done,
              std::optional<base::SecretText> value = {}) const;
  Session session() const { return Session(options_); }

  /// Names of the secrets and environments that there are, and of one of them that the person picks.
  std::vector<std::string> names(std::string_view action, const char* list) const;
  std::string someSecret() const;
  std::string someEnvironment() const;
  /// nullopt: every environment.
  std::optional<std::string> environmentOrAll() const;
  /// A deployment target, or the empty text for none.
  std::string target(const std::string& enter) const;

 private:
  Then pick(const std::vector<Choice>& choices, std::string_view enter) const;
  void sayFailure(const Failure& failure) const;

  const Options& options_;
  Dialog dialog_;
};

// The screens.
void showSecrets(const Menu& menu);
void showEnvironments(const Menu& menu);
void showConnections(const Menu& menu);
void showTaskSessions(const Menu& menu);
void showLog(const Menu& menu);
void showSettings(const Menu& menu);
void showUnlock(const Menu& menu);

/// Says how a locked vault stands, and what opens it.
std::vector<Choice> lockedChoices(const Menu& menu);

/// The main menu, until the person leaves it or ends the input; returns the exit code.
int runMenu(const Options& options);

}  // namespace sorvane::cli
