#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/support_folder.h"
#include "base/unicode.h"
#include "cli/commands.h"
#include "cli/lock_dialogue.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

base::Json documentOf(const agent::LockReport& report) {
  base::Json document{{"isUnlocked", report.isUnlocked},       {"prompt", report.prompt},
                      {"sentence", report.sentence},           {"requirement", report.requirement},
                      {"hasPassphrase", report.hasPassphrase}, {"followsSession", report.followsSession},
                      {"isManaged", report.isManaged},         {"heldLocked", report.heldLocked},
                      {"waitSeconds", report.waitSeconds},     {"store", report.store},
                      {"storeIsSealed", report.storeIsSealed}, {"notices", report.notices}};
  if (report.systemCheckUnavailable) document["systemCheckUnavailable"] = *report.systemCheckUnavailable;
  return document;
}

/// Sentences in the order in which they come, each once.
class Lines {
 public:
  void add(const std::string& sentence) {
    if (!sentence.empty() && std::find(lines_.begin(), lines_.end(), sentence) == lines_.end()) {
      lines_.push_back(sentence);
    }
  }
  void printAll() const {
    for (const std::string& line : lines_) printLine(base::escapedForDisplay(line));
  }

 private:
  std::vector<std::string> lines_;
};

void describeVault(const base::Json& document, Lines& lines) {
  if (!document.value("vaultOpen", false)) return lines.add("The vault is closed: " + cell(document, "storageFailure"));
  lines.add("It holds " + cell(document, "secrets") + " secrets and " + cell(document, "environments") +
            " environments for " + cell(document, "agents") + " agent connections.");
  const base::Json store = document.value("store", base::Json::object());
  lines.add("Values are kept in the " + cell(store, "kind") + " store.");
  lines.add(cell(store, "note"));
  lines.add("Approval policy: " + cell(document, "policy") + ". " + cell(document, "approver"));
}

int showLocked(const Options& options, const agent::LockReport& report) {
  if (options.json) {
    printJson({{"version", report.version},
               {"supportFolder", report.supportFolder},
               {"vaultOpen", false},
               {"lock", documentOf(report)},
               {"notices", report.notices}});
    return 0;
  }
  Lines lines;
  lines.add("sorvaned " + report.version + " keeps the vault in " + report.supportFolder + ".");
  for (const std::string& sentence : describeLock(report)) lines.add(sentence);
  lines.printAll();
  return 0;
}

/// An application without this socket, or none at all, is told by the other one.
std::optional<agent::LockReport> lockReport(const Options& options) {
  try {
    return lockReportOf(base::supportFolder(options.supportFolder));
  } catch (const base::SupportFolderError& error) {
    throw failureOf(error);
  }
}

int status(Session& session) {
  const auto report = lockReport(session.options());
  if (report && !report->isUnlocked) return showLocked(session.options(), *report);
  base::Json document = session.read("status");
  if (session.options().json) {
    if (report) document["lock"] = documentOf(*report);
    return printJson(document), 0;
  }
  const base::Json& notices = items(document, "notices");
  Lines lines;
  lines.add("sorvaned " + cell(document, "version") + " serves the vault in " + cell(document, "supportFolder") + ".");
  describeVault(document, lines);
  if (report) {
    for (const std::string& sentence : describeLock(*report)) lines.add(sentence);
  }
  for (const base::Json& sentence : notices) lines.add(sentence.get<std::string>());
  lines.printAll();
  return 0;
}

}  // namespace

void Commands::addStatus(CLI::App& app) {
  app.add_subcommand("status", "Whether sorvane is open, what opens it, what it serves, and what you should know")
      ->callback([this] { action = status; });
}

}  // namespace sorvane::cli
