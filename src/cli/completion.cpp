#include <algorithm>
#include <vector>

#include "cli/command_table.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

// Names of secrets and environments are left out on purpose: completing must not ask the vault. Everything else is read
// off the parser itself, so that what can be typed is what is offered.

/// A word that may follow, and what is said about it.
struct Word {
  std::string text, about;
  bool takesValue = false;  ///< an option that needs one behind it
};

/// An option that takes one of a few words.
struct Choice {
  std::vector<std::string> options;  ///< as typed, such as "--output" and "-o"
  std::vector<std::string> words;
};

/// A command, or the program itself. `path` is the words that lead there, each after a space.
struct Place {
  std::string path;
  std::vector<Word> words;
  std::vector<Choice> choices;
};

/// The words between the braces of a type such as "TEXT:{env,json,shell}".
std::vector<std::string> choicesOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const std::size_t open = type.find('{'), close = type.rfind('}');
  if (open == std::string::npos || close == std::string::npos || close < open) return {};
  return CLI::detail::split(type.substr(open + 1, close - open - 1), ',');
}

std::vector<std::string> typed(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  return names;
}

/// The first line of a description, without the examples that follow it.
std::string firstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

void addOptionsOf(const CLI::App& app, Place& place) {
  for (const CLI::Option* const option : app.get_options()) {
    const auto words = choicesOf(*option);
    if (option->get_positional()) {
      for (const std::string& word : words) place.words.push_back({word, "", false});
      continue;
    }
    const auto names = typed(*option);
    if (!words.empty()) place.choices.push_back({names, words});
    const auto known = [&](const Word& word) { return word.text == names.front(); };
    if (std::ranges::none_of(place.words, known)) {
      place.words.push_back({names.front(), firstLine(option->get_description()), option->get_expected_min() > 0});
    }
  }
}

void collect(const CLI::App& root, const CLI::App& app, const std::string& path, std::vector<Place>& places) {
  Place place{path, {}, {}};
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  for (const CLI::App* const command : commands) {
    place.words.push_back({command->get_name(), firstLine(command->get_description()), false});
  }
  addOptionsOf(app, place);
  if (&app != &root) addOptionsOf(root, place);
  places.push_back(std::move(place));
  for (const CLI::App* const command : commands) collect(root, *command, path + " " + command->get_name(), places);
}

std::vector<Place> everyPlace() {
  Options options;
  CLI::App app;
  Commands commands{options, {}};
  addOptions(app, options);
  addCommands(commands, app, 0, nullptr);
  std::vector<Place> places;
  collect(app, app, "", places);
  return places;
}

/// The patterns of a shell's `case` for every place but the program itself.
std::string pathPatterns(const std::vector<Place>& places, std::string_view between) {
  std::string patterns;
  for (const Place& place : places) {
    if (place.path.empty()) continue;
    if (!patterns.empty()) patterns += between;
    patterns += "'" + place.path + "'";
  }
  return patterns;
}

/// What bash and zsh share: `at` becomes the place, `list` the words. `given` names the words typed so far, `first` the
/// index of the first after the program, `current` that of the word being typed.
std::string caseScript(const std::vector<Place>& places, const std::string& given, const std::string& first,
                       const std::string& current) {
  std::string script = "  for ((i = " + first + "; i < " + current + "; i++)); do\n    case \"$at ${" + given +
                       "[i]}\" in\n      *' --') return ;;\n      " + pathPatterns(places, "|") + ") at=\"$at ${" +
                       given + "[i]}\" ;;\n    esac\n  done\n";
  std::string values, words;
  for (const Place& place : places) {
    words += "    '" + place.path + "') list='";
    for (const Word& word : place.words) words += word.text + (&word == &place.words.back() ? "" : " ");
    words += "' ;;\n";
    for (const Choice& choice : place.choices) {
      std::string patterns;
      for (const std::string& option : choice.options) {
        patterns += (patterns.empty() ? "'" : "|'") + place.path + " " + option + "'";
      }
      values += "    " + patterns + ") list='" + CLI::detail::join(choice.words, " ") + "' ;;\n";
    }
  }
  script += "  case \"$at ${" + given + "[" + current + "-1]}\" in\n" + values + "  esac\n";
  return script + "  [ -n \"$list\" ] || case \"$at\" in\n" + words + "  esac\n";
}

std::string bashScript(const std::vector<Place>& places) {
  return "_sorvane() {\n  local at= list= i\n  COMPREPLY=()\n" + caseScript(places, "COMP_WORDS", "1", "COMP_CWORD") +
         "  COMPREPLY=($(compgen -W \"$list\" -- \"${COMP_WORDS[COMP_CWORD]}\"))\n}\n"
         "complete -o default -F _sorvane sorvane\n";
}

std::string zshScript(const std::vector<Place>& places) {
  return "#compdef sorvane\n_sorvane() {\n  local at= list= i\n" + caseScript(places, "words", "2", "CURRENT") +
         "  compadd -- ${=list}\n  [[ ${words[CURRENT]} == -* ]] || _files\n}\n"
         "if [ \"$funcstack[1]\" = _sorvane ]; then _sorvane \"$@\"; else compdef _sorvane sorvane; fi\n";
}

std::string fishQuoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "'";
}

std::string fishScript(const std::vector<Place>& places) {
  std::string script =
      "function __sorvane_at\n  set -l at ''\n  for word in (commandline -opc)[2..-1]\n    switch \"$at $word\"\n"
      "      case '* --'\n        return 1\n      case " +
      pathPatterns(places, " ") +
      "\n        set at \"$at $word\"\n    end\n  end\n  test \"$at\" = \"$argv[1]\"\nend\n";
  for (const Place& place : places) {
    const std::string line = "complete -c sorvane -n \"__sorvane_at '" + place.path + "'\" ";
    for (const Word& word : place.words) {
      const bool option = word.text.starts_with("--");
      script += line + (option ? "-l " + word.text.substr(2) : "-f -a " + word.text);
      for (const Choice& choice : place.choices) {
        if (choice.options.front() == word.text) script += " -f -a " + fishQuoted(CLI::detail::join(choice.words, " "));
      }
      script += word.takesValue ? " -r" : "";
      script += (word.about.empty() ? "" : " -d " + fishQuoted(word.about)) + "\n";
    }
  }
  return script;
}

}  // namespace

void Commands::addCompletion(CLI::App& app) {
  const auto shell = std::make_shared<std::string>();
  CLI::App& command = *app.add_subcommand("completion", "Print the completion script of a shell");
  command.add_option("shell", *shell, "bash, zsh or fish")->required()->check(CLI::IsMember({"bash", "zsh", "fish"}));
  command.callback([this, shell] {
    action = [shell](Session&) {
      const auto places = everyPlace();
      print(*shell == "zsh" ? zshScript(places) : *shell == "fish" ? fishScript(places) : bashScript(places));
      return 0;
    };
  });
}

}  // namespace sorvane::cli
