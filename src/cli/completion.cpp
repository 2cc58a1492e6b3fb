#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

// The words of the command line. Names of secrets and environments are left out on purpose: completing must not ask the
// vault.
constexpr std::string_view kBash = R"(_sorvane() {
  local word=${COMP_WORDS[COMP_CWORD]} words=
  case "$COMP_CWORD:${COMP_WORDS[1]}" in
    1:*) words="status policy secret env import scan export agent session protect unprotect proxy mcp settings run log gc store uninstall completion --help --version" ;;
    2:secret) words="add list show edit rotate reveal copy rename rm versions restore limit" ;;
    2:env) words="list show create edit bind unbind move target rename rm" ;;
    2:agent) words="status connect disconnect repair list add edit rm confirm" ;;
    3:agent) words="claude-code claude-desktop codex cursor vscode windsurf gemini-cli opencode zed" ;;
    2:session) words="begin list end env" ;;
    2:proxy) words="status limits ledger prices confirm resume end" ;;
    3:proxy) words="fetch set clear --json --help" ;;
    2:settings) words="get set" ;;
    2:store) words="show move" ;;
    2:log) words="repair --usage --limit --secret --environment" ;;
    2:policy) words="per-request per-environment unlocked approver" ;;
    2:completion) words="bash zsh fish" ;;
    *) words="--json --help" ;;
  esac
  COMPREPLY=($(compgen -W "$words" -- "$word"))
}
complete -F _sorvane sorvane
)";

constexpr std::string_view kFish = R"(complete -c sorvane -f
complete -c sorvane -n __fish_use_subcommand -a "status policy secret env import scan export agent session protect unprotect proxy mcp settings run log gc store uninstall completion"
complete -c sorvane -n "__fish_seen_subcommand_from secret" -a "add list show edit rotate reveal copy rename rm versions restore limit"
complete -c sorvane -n "__fish_seen_subcommand_from env" -a "list show create edit bind unbind move target rename rm"
complete -c sorvane -n "__fish_seen_subcommand_from agent" -a "status connect disconnect repair list add edit rm confirm"
complete -c sorvane -n "__fish_seen_subcommand_from session" -a "begin list end env"
complete -c sorvane -n "__fish_seen_subcommand_from proxy" -a "status limits ledger prices confirm resume end"
complete -c sorvane -n "__fish_seen_subcommand_from prices" -a "fetch set clear"
complete -c sorvane -n "__fish_seen_subcommand_from settings" -a "get set"
complete -c sorvane -n "__fish_seen_subcommand_from store" -a "show move"
complete -c sorvane -n "__fish_seen_subcommand_from policy" -a "per-request per-environment unlocked"
complete -c sorvane -n "__fish_seen_subcommand_from completion" -a "bash zsh fish"
complete -c sorvane -l json -d "One JSON document on standard output"
complete -c sorvane -l help -d "Help"
)";

}  // namespace

void Commands::addCompletion(CLI::App& app) {
  const auto shell = std::make_shared<std::string>();
  CLI::App& command = *app.add_subcommand("completion", "Print the completion script of a shell");
  command.add_option("shell", *shell, "bash, zsh or fish")->required()->check(CLI::IsMember({"bash", "zsh", "fish"}));
  command.callback([this, shell] {
    action = [shell](Session&) {
      if (*shell == "zsh") print("autoload -U +X bashcompinit && bashcompinit\n");
      print(*shell == "fish" ? kFish : kBash);
      return 0;
    };
  });
}

}  // namespace sorvane::cli
