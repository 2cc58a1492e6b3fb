#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <set>
#include <system_error>

#include "base/files.h"
#include "base/json_writer.h"
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

/// A file name for an environment: what a path could mean something by becomes "_".
std::string fileName(const std::string& environment, const std::string& format) {
  std::string name = environment;
  for (char& c : name) {
    if (c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20) c = '_';
  }
  if (name.starts_with('.')) name.front() = '_';
  return name + (format == "json" ? ".json" : format == "shell" ? ".sh" : ".env");
}

/// The same, followed by a number while another environment of this export has the name, in whatever case.
std::string freeName(std::set<std::string>& taken, const std::string& environment, const std::string& format) {
  const auto folded = [](std::string name) {
    for (char& c : name) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
    return name;
  };
  std::string name = fileName(environment, format);
  for (int number = 2; !taken.insert(folded(name)).second; ++number) {
    name = fileName(environment + "-" + std::to_string(number), format);
  }
  return name;
}

void printDelivery(const agent::AgentResponse& response) {
  base::JsonWriter out;
  out.beginObject().field("text", valueOf(response).view());
  out.strings("warnings", response.warnings.value_or(std::vector<std::string>{}));
  out.strings("missing", response.missing.value_or(std::vector<std::string>{})).endObject();
  print(out.view());
  print("\n");
}

void deliver(const Session& session, const ExportGiven& given, const agent::AgentResponse& response) {
  if (session.options().json && given.output.empty()) return printDelivery(response);
  for (const std::string& warning : response.warnings.value_or(std::vector<std::string>{})) note("Warning: " + warning);
  if (given.output.empty()) return printValue(valueOf(response));
  writeFile(given.output, valueOf(response).view());
  if (session.options().json) return printJson({{"file", given.output}});
  note("Written to " + given.output + ", readable by you only.");
}

/// Before the owner is asked: what was allowed must not fail for want of a folder.
void makeFolder(const std::string& folder) {
  if (folder.empty()) throw Failure(kUsage, "usage", "export --all needs --to FOLDER. Nothing was shared.");
  if (::mkdir(folder.c_str(), 0700) == 0) return;
  const int reason = errno;
  std::error_code ignored;
  if (std::filesystem::is_directory(folder, ignored) && ::access(folder.c_str(), W_OK | X_OK) == 0) return;
  throw Failure(kFailed, "not_written",
                "The folder " + folder + " cannot be used (" + std::system_category().message(reason) +
                    "). Nothing was shared. Choose another with --to.");
}

/// Writes one environment's file, or says in the row why not; a file that fails does not keep the others back.
base::Json writeEnvironment(const base::Json& environment, const ExportGiven& given, std::set<std::string>& taken) {
  base::Json row{{"name", cell(environment, "name")}};
  if (environment.contains("refused")) {
    row["refused"] = cell(environment, "refused");
    return row;
  }
  const auto text = environment.find("text");
  if (text == environment.end() || !text->is_string()) throw notUnderstood();
  const auto path = std::filesystem::path(given.folder) / freeName(taken, cell(environment, "name"), given.format);
  try {
    writeFile(path, text->get_ref<const std::string&>());
    row["file"] = path.string();
    if (environment.contains("warnings")) row["warnings"] = items(environment, "warnings");
  } catch (const Failure& failure) {
    row["refused"] = failure.sentence();
  }
  return row;
}

int exportAll(Session& session, const ExportGiven& given) {
  makeFolder(given.folder);
  const auto response = session.manage("exportAll", {{"format", given.format}}, Session::Asks::yes);
  const auto document = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!document) throw notUnderstood();
  std::set<std::string> taken;
  base::Json report = base::Json::array();
  bool refused = false;
  for (const base::Json& environment : items(*document, "environments")) {
    const base::Json row = writeEnvironment(environment, given, taken);
    refused = refused || row.contains("refused");
    const std::string outcome =
        row.contains("refused") ? "not written. " + cell(row, "refused") : "written to " + cell(row, "file");
    if (!session.options().json) {
      note(cell(row, "name") + ": " + outcome);
      const base::Json warnings = row.value("warnings", base::Json::array());
      for (const base::Json& warning : warnings) note("Warning: " + warning.get<std::string>());
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
  if (given.output.empty() && ::isatty(STDOUT_FILENO) == 0 && !given.force && !session.options().json) {
    throw Failure(
        kUsage, "not_a_terminal",
        "Standard output is no terminal, so nothing was asked for. Use --output FILE, or --force to write there.");
  }
  if (!given.environment.empty()) {
    deliver(session, given,
            session.manage("export", {{"name", given.environment}, {"format", given.format}}, Session::Asks::yes));
    return 0;
  }
  base::Json selection = base::Json::array();
  for (const std::string& item : given.secrets) {
    const std::size_t equals = item.rfind('=');
    selection.push_back({item.substr(0, equals), equals == std::string::npos ? item : item.substr(equals + 1)});
  }
  deliver(
      session, given,
      session.manage("exportSecrets", {{"selection", selection.dump()}, {"format", given.format}}, Session::Asks::yes));
  return 0;
}

}  // namespace

void Commands::addExport(CLI::App& app) {
  const auto given = std::make_shared<ExportGiven>();
  CLI::App& command = *app.add_subcommand("export", "Write values out in the clear (asks)");
  command.add_option("environment", given->environment, "Name of the environment");
  command.add_option("--secret", given->secrets, "A secret by itself, as NAME=VARIABLE; may be repeated")
      ->allow_extra_args(false);
  command.add_flag("--all", given->all, "Every environment, one file each");
  command.add_option("--to", given->folder, "The folder for --all");
  command.add_option("--format", given->format, "env, json or shell")->check(CLI::IsMember({"env", "json", "shell"}));
  command.add_option("-o,--output", given->output, "A file, made readable by you only");
  command.add_flag("--force", given->force, "Write to standard output also where it is no terminal; --json does, too");
  command.callback([this, given] { action = [given](Session& session) { return run(session, *given); }; });
}

}  // namespace sorvane::cli
