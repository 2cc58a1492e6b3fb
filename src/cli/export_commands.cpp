#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <set>

#include "base/files.h"
#include "cli/commands.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

struct ExportGiven {
  std::string environment;
  std::vector<std::string> secrets;  ///< NAME=VARIABLE, or NAME alone
  bool all = false;
  std::string folder;
  std::string format = "env";
  std::string output;
  bool force = false;
};

void writeFile(const std::filesystem::path& path, std::string_view text) {
  try {
    base::SystemFiles().writeAtomically(std::filesystem::absolute(path), base::bytesOf(text));
  } catch (const base::FileError& error) {
    throw Failure(kFailed, "not_written", "sorvane " + error.sentence() + ". Choose another place.");
  }
}

/// A file name for an environment: what a path could mean something by becomes "_". Names that become equal by that
/// are told apart by a number, so that no environment is written over another.
std::string fileName(const std::string& environment, const std::string& format, std::set<std::string>& taken) {
  std::string name = environment;
  for (char& c : name) {
    if (c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20) c = '_';
  }
  if (name.starts_with('.')) name.front() = '_';
  const std::string ending = format == "json" ? ".json" : format == "shell" ? ".sh" : ".env";
  std::string file = name + ending;
  for (int number = 2; !taken.insert(file).second; ++number) file = name + "-" + std::to_string(number) + ending;
  return file;
}

void deliver(const ExportGiven& given, const agent::AgentResponse& response) {
  for (const std::string& warning : response.warnings.value_or(std::vector<std::string>{})) note("Warning: " + warning);
  if (given.output.empty()) return printValue(*response.value);
  writeFile(given.output, response.value->view());
  note("Written to " + given.output + ", readable by you only.");
}

int exportAll(Session& session, const ExportGiven& given) {
  if (given.folder.empty()) throw Failure(kUsage, "usage", "export --all needs --to FOLDER. Nothing was shared.");
  ::mkdir(given.folder.c_str(), 0700);
  const auto response = session.manage("exportAll", {{"format", given.format}}, Session::Asks::yes);
  const auto document = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!document) throw Failure(kFailed, "bad_answer", "sorvaned sent an answer that this program does not understand.");
  base::Json report = base::Json::array();
  bool refused = false;
  std::set<std::string> taken;
  for (const base::Json& environment : (*document)["environments"]) {
    base::Json row{{"name", environment["name"]}};
    if (environment.contains("refused")) {
      refused = true;
      row["refused"] = environment["refused"];
      if (!session.options().json) note(cell(environment, "name") + ": not written. " + cell(environment, "refused"));
    } else {
      const auto path = std::filesystem::path(given.folder) / fileName(cell(environment, "name"), given.format, taken);
      writeFile(path, environment["text"].get_ref<const std::string&>());
      row["file"] = path.string();
      if (!session.options().json) note(cell(environment, "name") + ": written to " + path.string());
      if (environment.contains("warnings")) {
        row["warnings"] = environment["warnings"];
        for (const base::Json& warning : environment["warnings"]) {
          if (!session.options().json) note("Warning: " + warning.get_ref<const std::string&>());
        }
      }
    }
    report.push_back(row);
  }
  if (session.options().json) printJson({{"environments", report}});
  return refused ? kFailed : 0;
}

int run(Session& session, const ExportGiven& given) {
  const int kinds = !given.environment.empty() + !given.secrets.empty() + given.all;
  if (kinds != 1) {
    throw Failure(kUsage, "usage",
                  "Name one environment, or --secret NAME=VAR, or --all --to FOLDER. Nothing was shared.");
  }
  if (given.all) return exportAll(session, given);
  if (given.output.empty() && ::isatty(STDOUT_FILENO) == 0 && !given.force) {
    throw Failure(
        kUsage, "not_a_terminal",
        "Standard output is no terminal, so nothing was asked for. Use --output FILE, or --force to write there.");
  }
  if (!given.environment.empty()) {
    deliver(given,
            session.manage("export", {{"name", given.environment}, {"format", given.format}}, Session::Asks::yes));
    return 0;
  }
  base::Json selection = base::Json::array();
  for (const std::string& item : given.secrets) {
    const std::size_t equals = item.rfind('=');
    selection.push_back({item.substr(0, equals), equals == std::string::npos ? item : item.substr(equals + 1)});
  }
  deliver(given, session.manage("exportSecrets", {{"selection", selection.dump()}, {"format", given.format}},
                                Session::Asks::yes));
  return 0;
}

}  // namespace

void Commands::addExport(CLI::App& app) {
  const auto given = std::make_shared<ExportGiven>();
  CLI::App& command = *app.add_subcommand("export", "Write values out in the clear (asks)");
  command.add_option("environment", given->environment, "Name of the environment");
  command.add_option("--secret", given->secrets, "A secret by itself, as NAME=VARIABLE; may be repeated");
  command.add_flag("--all", given->all, "Every environment, one file each");
  command.add_option("--to", given->folder, "The folder for --all");
  command.add_option("--format", given->format, "env, json or shell")->check(CLI::IsMember({"env", "json", "shell"}));
  command.add_option("-o,--output", given->output, "A file, made readable by you only");
  command.add_flag("--force", given->force, "Write to standard output also where it is no terminal");
  command.callback([this, given] { action = [given](Session& session) { return run(session, *given); }; });
}

}  // namespace sorvane::cli
