#include <algorithm>
#include <nlohmann/json.hpp>

#include "agent/handlers.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "base/unicode.h"
#include "vault/import_walk.h"
#include "vault/importer.h"

namespace sorvane::agent {
namespace {

using vault::Importer;

/// Most key names that a question lists.
constexpr std::size_t kMostNamesShown = 40;

std::string_view word(Importer::Outcome outcome) {
  switch (outcome) {
    case Importer::Outcome::create:
      return "new";
    case Importer::Outcome::exists:
      return "exists";
    case Importer::Outcome::newVersion:
      return "newVersion";
    case Importer::Outcome::unchanged:
      return "unchanged";
    case Importer::Outcome::excluded:
      return "excluded";
    case Importer::Outcome::runControl:
      return "runControl";
    case Importer::Outcome::tooLarge:
      return "tooLarge";
  }
  return "excluded";
}

void writePlan(base::JsonWriter& out, const Importer::Plan& plan) {
  const Importer::ScanSummary summary = plan.summary();
  out.beginObject().field("folder", plan.folder).key("filesScanned").integer(summary.files);
  out.key("totalKeys").integer(summary.totalKeys).key("likelySecrets").integer(summary.likelySecrets);
  out.strings("environments", summary.environments).strings("unreadable", plan.unreadable);
  out.key("files").beginArray();
  for (const Importer::PlannedFile& file : plan.files) {
    out.beginObject().field("path", file.path).field("environment", file.environment);
    out.key("environmentExists").boolean(file.environmentExists).field("proposedTarget", file.proposedTarget);
    out.field("error", file.error).strings("duplicates", file.duplicates).key("keys").beginArray();
    for (const Importer::PlannedKey& key : file.keys) {
      out.beginObject().field("name", key.name).field("outcome", word(key.outcome));
      out.key("length").integer(static_cast<std::int64_t>(key.length)).endObject();
    }
    out.endArray().endObject();
  }
  out.endArray().endObject();
}

void writeReport(base::JsonWriter& out, const Importer::Report& report) {
  out.beginObject().key("files").beginArray();
  for (const Importer::FileOutcome& file : report.files) {
    out.beginObject().field("path", file.path).strings("imported", file.imported).strings("excluded", file.excluded);
    out.strings("unchanged", file.unchanged).strings("failed", file.failed).key("failedReasons").beginObject();
    for (const auto& [key, reason] : file.failedReasons) out.field(key, reason);
    out.endObject().field("error", file.error).endObject();
  }
  out.endArray().key("filesScanned").integer(report.filesScanned);
  out.key("secretsCreated").integer(report.secretsCreated).key("secretsReused").integer(report.secretsReused);
  out.key("projectsCreated").integer(report.projectsCreated).key("bindings").integer(report.bindings);
  out.key("skippedValues").integer(report.skippedValues).key("runControlSkipped").integer(report.runControlSkipped);
  out.strings("keyNames", report.keyNames).strings("projectNames", report.projectNames);
  out.strings("importedFiles", report.importedFiles).endObject();
}

std::string_view whichEnvironment(const Importer::Plan& plan, bool named) {
  if (named) return "the environment";
  const auto all = [&](bool Importer::PlannedFile::*is) {
    return std::all_of(plan.files.begin(), plan.files.end(), [&](const auto& file) { return file.*is; });
  };
  if (all(&Importer::PlannedFile::environmentIsFolders)) return "the folder's existing environment";
  return all(&Importer::PlannedFile::environmentExists) ? "the environment" : "a new environment";
}

OperationQuestion importQuestion(Call& call, const Importer::Plan& plan, bool named) {
  OperationQuestion question;
  question.prompt.kind = OwnerApprovalPrompt::Kind::other;
  question.prompt.reason = call.requester() + " wants to import keys into " +
                           std::string(whichEnvironment(plan, named)) + " in your sorvane vault from the folder " +
                           plan.folder;
  for (const Importer::PlannedFile& file : plan.files) {
    std::string names, replaced;
    std::size_t count = 0;
    for (const Importer::PlannedKey& key : file.keys) {
      if (key.outcome == Importer::Outcome::newVersion)
        replaced += (replaced.empty() ? "" : ", ") + shownShort(key.name);
      if (key.outcome != Importer::Outcome::create && key.outcome != Importer::Outcome::exists) continue;
      if (++count <= kMostNamesShown) names += (names.empty() ? "" : ", ") + shownShort(key.name);
    }
    if (count > kMostNamesShown) names += " and " + std::to_string(count - kMostNamesShown) + " more";
    if (count > 0) question.details.push_back(file.path + " into '" + file.environment + "': " + names);
    if (!replaced.empty()) {
      question.details.push_back(file.path + " gives new values to " + replaced + ". Task sessions that use them end.");
    }
  }
  return question;
}

/// The names in a JSON array of text; empty when there is none.
std::vector<std::string> namesIn(const Payload& payload, std::string_view field) {
  std::vector<std::string> names;
  const auto found = payload.find(field);
  const auto json = found == payload.end() ? std::nullopt : base::parseJson(found->second);
  if (!json || !json->is_array()) return names;
  for (const base::Json& item : *json) {
    if (item.is_string()) names.push_back(item.get<std::string>());
  }
  return names;
}

std::string namesOf(const Importer::Plan& plan, Importer::Outcome outcome) {
  std::string names;
  for (const Importer::PlannedFile& file : plan.files) {
    for (const Importer::PlannedKey& key : file.keys) {
      if (key.outcome == outcome) names += (names.empty() ? "" : ", ") + key.name;
    }
  }
  return names;
}

std::string sentenceOf(const Importer::Report& report) {
  std::string names;
  for (const std::string& name : report.projectNames) names += (names.empty() ? "'" : ", '") + name + "'";
  std::string sentence = "imported " + std::to_string(report.bindings) + (report.bindings == 1 ? " key" : " keys") +
                         (names.empty() ? "." : " into " + names + ".");
  std::size_t failed = 0;
  for (const Importer::FileOutcome& file : report.files) failed += file.failed.size() + (file.error ? 1 : 0);
  if (failed > 0) sentence += " " + std::to_string(failed) + " failed; the report says why.";
  if (report.runControlSkipped > 0) sentence += " " + vault::runControlSentence(report.runControlSkipped);
  return sentence + " Original files are kept. Review the results before editing them.";
}

}  // namespace

AgentResponse Handlers::importProject(Call& call) {
  const AgentRequest& request = call.request();
  const std::string given = request.directory.value_or(request.arg.value_or(""));
  if (base::trimmed(given).empty()) return AgentResponse::refused("importProject needs a directory path");
  const auto folder = existingFolder(given);
  if (!folder) return AgentResponse::refused("no such directory: " + given);
  if (const auto refusal = vault::tooBroad(*folder, existingFolder(ports_.home).value_or(ports_.home),
                                           existingFolder(ports_.supportFolder).value_or(ports_.supportFolder))) {
    return AgentResponse::refused(*refusal);
  }
  Importer importer(ports_.vault);
  Importer::Options options;
  if (request.environment && !base::trimmed(*request.environment).empty()) {
    options.environment = std::string(base::trimmed(*request.environment));
    const vault::Project* const known = ports_.vault.records()->projectByName(*options.environment);
    if (known != nullptr) options.environment = known->name;
  }
  if (call.caller().kind == Caller::Kind::controller) options.newVersions = namesIn(request.payload, "newVersions");
  Importer::Plan plan = importer.plan(*folder, options);
  for (const Importer::PlannedFile& file : plan.files) {
    if (auto refusal = refusedChange(call.caller(), "import into", file.environment)) return std::move(*refusal);
  }
  AgentResponse response;
  response.ok = true;
  base::JsonWriter out;
  const auto dry = request.payload.find("dryRun");
  if (dry != request.payload.end() && dry->second == "true") {
    writePlan(out, plan);
    response.document = out.take();
    return response;
  }
  if (plan.summary().likelySecrets == 0) {
    std::string sentence = "no credential-shaped keys found in .env files under " + *folder;
    for (const Importer::PlannedFile& file : plan.files) {
      if (file.error) sentence += ". " + file.path + ": " + *file.error;
    }
    return AgentResponse::refused(sentence);
  }
  if (!plan.importsAnything()) {
    if (const std::string tooLarge = namesOf(plan, Importer::Outcome::tooLarge); !tooLarge.empty()) {
      return AgentResponse::refused("Values over 4 KB cannot be stored, so nothing was imported: " + tooLarge +
                                    ". Every other key is already in the vault.");
    }
    return AgentResponse::refused("nothing new: every key under " + *folder + " is already in the vault");
  }
  if (call.denied(importQuestion(call, plan, options.environment.has_value()))) {
    return AgentResponse::refused(std::string(kApprovalDenied));
  }
  ports_.vault.log(call.access("agent_import_project"));
  const Importer::Report report = importer.apply(std::move(plan));
  if (report.bindings > 0 || report.secretsCreated > 0) {
    changed("sorvane · project imported", "imported keys from a folder: " + shownShort(*folder));
  }
  writeReport(out, report);
  response.document = out.take();
  response.value = base::SecretText(sentenceOf(report));
  return response;
}

}  // namespace sorvane::agent
