#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "clients/config_edit.h"

namespace sorvane::clients {

/// Where the configuration files of this user lie.
struct Folders {
  std::filesystem::path home;
  std::filesystem::path config;     ///< ~/.config, or ~/Library/Application Support on macOS
  std::filesystem::path codex;      ///< CODEX_HOME, else ~/.codex
  std::filesystem::path dotConfig;  ///< ~/.config on every system
};

/// What an entry tells the client to start.
struct EntryCommand {
  std::string program;
  std::vector<std::string> arguments;
  std::vector<std::pair<std::string, std::string>> environment;
};

/// AgentClient is one program that can be connected: a row of the table of clients.
struct AgentClient {
  std::string_view word;  ///< as it is typed, such as "claude-code"
  std::string_view name;  ///< as it is shown
  ConfigFormat format;
  std::string_view root;         ///< the key under which the entry "sorvane" stands
  std::string_view projectFile;  ///< below a project's folder; empty when the client has none
  std::filesystem::path (*userFile)(const Folders&);
  OrderedJson (*entry)(const EntryCommand&);
  /// Whether the client's configuration lets the tools of "sorvane" run without its own question. May read further
  /// files of the client; false when nothing says so.
  bool (*runsUnasked)(const Folders&, std::string_view document);

  EntryPath path() const { return {std::string(root), "sorvane"}; }
};

std::span<const AgentClient> agentClients();
/// nullptr when there is none of that word.
const AgentClient* clientNamed(std::string_view word);

}  // namespace sorvane::clients
