#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>

#include "cli/session.h"

namespace sorvane::cli {

/// What a parsed command line asks for; returns the exit code and throws Failure.
using Action = std::function<int(Session&)>;

/// Commands adds subcommands to a parser. Each, when it is the one given, sets `action`. Arguments live in shared
/// objects that the actions keep.
struct Commands {
  Options& options;
  Action action;

  void addSecret(CLI::App& app);
  void addEnvironment(CLI::App& app);
  void addExport(CLI::App& app);
  void addRun(CLI::App& app);
  void addSession(CLI::App& app);
  void addImport(CLI::App& app);
  void addScan(CLI::App& app);
  void addAgent(CLI::App& app);
  void addClients(CLI::App& group);  ///< the part of `agent` that edits clients' files
  void addUninstall(CLI::App& app);
  void addBackup(CLI::App& app);
  void addPhone(CLI::App& app);
  void addLog(CLI::App& app);
  void addProtect(CLI::App& app);
  void addUnprotect(CLI::App& app);
  void addProxy(CLI::App& app);
  void addStatus(CLI::App& app);
  void addLock(CLI::App& app);         ///< unlock, lock, passphrase, require, follow-session
  void addApplication(CLI::App& app);  ///< policy, settings, gc, store
  void addMcp(CLI::App& app);
  void addCompletion(CLI::App& app);
};

/// Text arguments that were given, under their names in the payload.
struct Given {
  Session::Arguments arguments;
  /// An option whose text goes into the payload as it stands.
  CLI::Option* text(CLI::App& command, const std::string& option, const std::string& name, const std::string& help);
  /// An option that may be repeated and goes into the payload as a JSON array.
  CLI::Option* list(CLI::App& command, const std::string& option, const std::string& name, const std::string& help);
  /// A flag that puts "true" into the payload.
  CLI::Option* flag(CLI::App& command, const std::string& option, const std::string& name, const std::string& help);
  /// "on" or "off", as "true" or "false".
  CLI::Option* onOff(CLI::App& command, const std::string& option, const std::string& name, const std::string& help);
};

}  // namespace sorvane::cli
