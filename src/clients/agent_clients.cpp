#include "clients/agent_clients.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "clients/config_file.h"

namespace sorvane::clients {
namespace {

using std::filesystem::path;

OrderedJson environmentOf(const EntryCommand& command) {
  OrderedJson environment = OrderedJson::object();
  for (const auto& [name, value] : command.environment) environment[name] = value;
  return environment;
}

OrderedJson plainEntry(const EntryCommand& command) {
  OrderedJson entry;
  entry["command"] = command.program;
  entry["args"] = command.arguments;
  if (!command.environment.empty()) entry["env"] = environmentOf(command);
  return entry;
}

OrderedJson typedEntry(const EntryCommand& command) {
  OrderedJson entry;
  entry["type"] = "stdio";
  entry.update(plainEntry(command));
  return entry;
}

OrderedJson arrayEntry(const EntryCommand& command) {
  OrderedJson entry;
  entry["type"] = "local";
  entry["command"] = OrderedJson::array({command.program});
  for (const std::string& argument : command.arguments) entry["command"].push_back(argument);
  if (!command.environment.empty()) entry["environment"] = environmentOf(command);
  entry["enabled"] = true;
  return entry;
}

// What lets tools run without the client's own question, as far as the client's files say it.

std::optional<base::Json> valueIn(ConfigFormat format, std::string_view document, const EntryPath& at) {
  try {
    return readEntry(format, document, at);
  } catch (const ConfigEditError&) {
    return std::nullopt;
  }
}

std::optional<base::Json> valueIn(const path& file, const EntryPath& at) {
  try {
    const auto contents = readConfigFile(file);
    return contents ? valueIn(ConfigFormat::json, contents->text, at) : std::nullopt;
  } catch (const base::Error&) {
    return std::nullopt;
  }
}

bool names(const std::optional<base::Json>& list, std::initializer_list<std::string_view> words) {
  if (!list || !list->is_array()) return false;
  return std::any_of(list->begin(), list->end(), [&](const base::Json& item) {
    return item.is_string() && std::any_of(words.begin(), words.end(), [&](std::string_view word) {
             return std::string_view(item.get_ref<const std::string&>()).starts_with(word);
           });
  });
}

bool never(const Folders&, std::string_view) {
  return false;
}

bool claudeCodeRunsUnasked(const Folders& folders, std::string_view) {
  const path settings = folders.home / ".claude/settings.json";
  const auto mode = valueIn(settings, {"permissions", "defaultMode"});
  return names(valueIn(settings, {"permissions", "allow"}), {"mcp__sorvane", "mcp__*"}) ||
         (mode && *mode == "bypassPermissions");
}

bool codexRunsUnasked(const Folders&, std::string_view document) {
  const auto entry = valueIn(ConfigFormat::toml, document, {"mcp_servers", "sorvane"});
  if (!entry || !entry->is_object()) return false;
  const auto mode = entry->find("default_tools_approval_mode");
  return mode != entry->end() && (*mode == "auto" || *mode == "approve");
}

bool cursorRunsUnasked(const Folders& folders, std::string_view) {
  return names(valueIn(folders.home / ".cursor/permissions.json", {"mcpAllowlist"}), {"sorvane", "*"});
}

bool codeRunsUnasked(const Folders& folders, std::string_view) {
  const auto all = valueIn(folders.config / "Code/User/settings.json", {"chat.tools.global.autoApprove"});
  return all && *all == true;
}

bool geminiRunsUnasked(const Folders&, std::string_view document) {
  const auto entry = valueIn(ConfigFormat::json, document, {"mcpServers", "sorvane"});
  if (!entry || !entry->is_object()) return false;
  const auto trust = entry->find("trust");
  return trust != entry->end() && *trust == true;
}

constexpr std::array kClients{
    AgentClient{"claude-code", "Claude Code", ConfigFormat::json, "mcpServers", ".mcp.json",
                [](const Folders& f) { return f.home / ".claude.json"; }, typedEntry, claudeCodeRunsUnasked},
    AgentClient{"claude-desktop", "Claude Desktop", ConfigFormat::json, "mcpServers", "",
                [](const Folders& f) { return f.config / "Claude/claude_desktop_config.json"; }, plainEntry, never},
    AgentClient{"codex", "Codex", ConfigFormat::toml, "mcp_servers", ".codex/config.toml",
                [](const Folders& f) { return f.codex / "config.toml"; }, plainEntry, codexRunsUnasked},
    AgentClient{"cursor", "Cursor", ConfigFormat::json, "mcpServers", ".cursor/mcp.json",
                [](const Folders& f) { return f.home / ".cursor/mcp.json"; }, plainEntry, cursorRunsUnasked},
    AgentClient{"vscode", "VS Code", ConfigFormat::json, "servers", ".vscode/mcp.json",
                [](const Folders& f) { return f.config / "Code/User/mcp.json"; }, typedEntry, codeRunsUnasked},
    AgentClient{"windsurf", "Windsurf", ConfigFormat::json, "mcpServers", "",
                [](const Folders& f) { return f.home / ".codeium/windsurf/mcp_config.json"; }, plainEntry, never},
    AgentClient{"gemini-cli", "Gemini CLI", ConfigFormat::json, "mcpServers", ".gemini/settings.json",
                [](const Folders& f) { return f.home / ".gemini/settings.json"; }, plainEntry, geminiRunsUnasked},
    AgentClient{"opencode", "OpenCode", ConfigFormat::json, "mcp", "opencode.json",
                [](const Folders& f) { return f.dotConfig / "opencode/opencode.json"; }, arrayEntry, never},
    AgentClient{"zed", "Zed", ConfigFormat::json, "context_servers", ".zed/settings.json",
                [](const Folders& f) { return f.dotConfig / "zed/settings.json"; }, plainEntry, never},
};

}  // namespace

std::span<const AgentClient> agentClients() {
  return kClients;
}

const AgentClient* clientNamed(std::string_view word) {
  const auto found =
      std::find_if(kClients.begin(), kClients.end(), [&](const AgentClient& c) { return c.word == word; });
  return found == kClients.end() ? nullptr : &*found;
}

}  // namespace sorvane::clients
