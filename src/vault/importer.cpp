#include "vault/importer.h"

#include <algorithm>
#include <set>

#include "base/unicode.h"
#include "vault/credential_test.h"
#include "vault/env_reader.h"
#include "vault/import_walk.h"
#include "vault/run_control.h"

namespace sorvane::vault {
namespace {

constexpr std::string_view kNameTaken = "A secret with this name already exists.";
constexpr std::string_view kNotStored = "The Keychain would not store it.";
constexpr std::string_view kTooLarge = "The value is larger than 4 KB.";
constexpr std::string_view kNotBound =
    "The keys were saved as secrets, but the environment could not be created. Add them to an environment from the "
    "Secrets list.";
constexpr std::string_view kNotText = "This file is not text, so nothing of it was read.";

bool isImported(Importer::Outcome outcome) {
  return outcome == Importer::Outcome::create || outcome == Importer::Outcome::exists ||
         outcome == Importer::Outcome::newVersion;
}

bool contains(const std::vector<std::string>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

void fail(Importer::FileOutcome& outcome, const std::string& key, std::string_view reason) {
  outcome.failed.push_back(key);
  outcome.failedReasons.insert_or_assign(key, std::string(reason));
}

/// Two folders of the same name below one root get the way from the root as their name.
void tellApart(Importer::Plan& plan) {
  std::map<std::string, std::set<std::string>> foldersOf;
  for (const auto& file : plan.files) foldersOf[file.environment].insert(file.folder);
  for (auto& file : plan.files) {
    if (file.environmentExists || foldersOf[file.environment].size() < 2) continue;
    const std::filesystem::path root(plan.folder), folder(file.folder);
    if (folder == root) continue;
    const std::string base = folder.filename().string();
    const std::string suffix = file.environment.substr(std::min(base.size(), file.environment.size()));
    file.environment = (root.filename() / std::filesystem::relative(folder, root)).string() + suffix;
  }
}

}  // namespace

std::string runControlSentence(std::int64_t count) {
  if (count == 0) return {};
  if (count == 1) return "1 was left out because it changes how programs start.";
  return std::to_string(count) + " were left out because they change how programs start.";
}

bool Importer::Plan::importsAnything() const {
  for (const PlannedFile& file : files) {
    for (const PlannedKey& key : file.keys) {
      if (isImported(key.outcome)) return true;
    }
  }
  return false;
}

Importer::ScanSummary Importer::Plan::summary() const {
  ScanSummary summary;
  summary.files = static_cast<std::int64_t>(files.size());
  for (const PlannedFile& file : files) {
    summary.totalKeys += static_cast<std::int64_t>(file.keys.size());
    summary.likelySecrets += std::count_if(file.keys.begin(), file.keys.end(), [](const PlannedKey& key) {
      return key.outcome != Outcome::excluded && key.outcome != Outcome::runControl;
    });
    if (!contains(summary.environments, file.environment)) summary.environments.push_back(file.environment);
  }
  return summary;
}

void Importer::place(PlannedFile& file, const Options& options, const Records& records) {
  const std::filesystem::path path(file.path);
  const std::string name = path.filename().string();
  file.proposedTarget = proposedTarget(name);
  if (options.environment) {
    file.environment = *options.environment;
  } else {
    file.environment = environmentNameFor(path.parent_path(), name);
    const bool plain = name == ".env" || name == ".dev.vars";
    for (const Project& project : records.projects) {
      if (plain && project.rootPath == file.folder) file.environment = project.name;
    }
  }
  const Project* const existing = records.projectByName(file.environment);
  file.environmentExists = existing != nullptr;
  file.environmentIsFolders = existing != nullptr && existing->rootPath == file.folder;
  if (existing != nullptr && existing->deploymentTarget) file.proposedTarget.reset();
}

Importer::Outcome Importer::outcomeOf(const PlannedKey& key, const PlannedFile& file, const Options& options,
                                      const Records& records) {
  if (isRunControlName(key.name)) return Outcome::runControl;
  if (isPlaceholder(key.value.view()) || !isCredential(key.name, key.value.view())) return Outcome::excluded;
  const Project* const project = records.projectByName(file.environment);
  if (project != nullptr && project->find(key.name) != nullptr) return Outcome::unchanged;
  if (key.value.size() > kMaxValueBytes) return Outcome::tooLarge;
  if (records.secretByName(key.name) == nullptr) return Outcome::create;
  return contains(options.newVersions, file.path + "\n" + key.name) ? Outcome::newVersion : Outcome::exists;
}

void Importer::sort(PlannedFile& file, const Options& options, const Records& records, Plan& plan) {
  for (PlannedKey& key : file.keys) {
    key.length = key.value.size();
    key.outcome = outcomeOf(key, file, options, records);
    if (key.outcome == Outcome::runControl) ++plan.runControl;
    if (key.outcome == Outcome::excluded && isPlaceholder(key.value.view())) ++plan.placeholders;
    if (!isImported(key.outcome)) key.value = {};
  }
}

Importer::Plan Importer::plan(const std::string& folder, const Options& options) {
  const auto records = vault_.records();
  Plan plan;
  plan.folder = folder;
  WalkResult walk = walkForEnvFiles(folder);
  plan.unreadable = std::move(walk.unreadable);
  for (const ImportCandidate& candidate : walk.files) {
    if (!base::isUtf8(candidate.path.string())) {
      plan.unreadable.push_back(candidate.path.string());
      continue;
    }
    PlannedFile& file = plan.files.emplace_back();
    file.path = candidate.path.string();
    file.folder = candidate.path.parent_path().string();
    place(file, options, *records);
    FileRead read = readCandidate(candidate);
    if (!read.text) {
      file.error = read.error;
      continue;
    }
    auto text = readEnv(read.text->view());
    if (!text) {
      file.error = std::string(kNotText);
      continue;
    }
    file.duplicates = std::move(text->duplicates);
    for (EnvEntry& entry : text->entries) file.keys.push_back({entry.name, std::move(entry.value), 0, {}});
  }
  // A name that is no text cannot be told to anybody as it is.
  for (std::string& name : plan.unreadable) {
    if (!base::isUtf8(name)) name = base::escapedForDisplay(name);
  }
  tellApart(plan);
  for (PlannedFile& file : plan.files) sort(file, options, *records, plan);
  return plan;
}

std::string Importer::store(PlannedKey& key, Report& report) {
  const auto records = vault_.records();
  const Secret* const secret = records->secretByName(key.name);
  if (secret != nullptr && vault_.currentValueIs(secret->id, key.value)) {
    ++report.secretsReused;
    return secret->id;
  }
  if (secret != nullptr && key.outcome == Outcome::newVersion) {
    NewVersion version;
    version.value = std::move(key.value);
    vault_.addVersion(secret->id, std::move(version));
    ++report.secretsCreated;
    return secret->id;
  }
  // Another file of this plan, or somebody else meanwhile, may have made it.
  if (secret != nullptr) throw VaultError(std::string(kNameTaken));
  NewSecret made;
  made.name = key.name;
  made.first.value = std::move(key.value);
  const std::string id = vault_.createSecret(std::move(made)).id;
  ++report.secretsCreated;
  return id;
}

void Importer::bindInto(const PlannedFile& file, const std::vector<std::pair<std::string, std::string>>& stored,
                        FileOutcome& outcome, Report& report) {
  try {
    auto records = vault_.records();
    const Project* project = records->projectByName(file.environment);
    Project made;
    if (project == nullptr) {
      NewEnvironment environment;
      environment.name = file.environment;
      environment.rootPath = file.folder;
      made = vault_.createEnvironment(environment);
      project = &made;
      ++report.projectsCreated;
    }
    if (!contains(report.projectNames, project->name)) report.projectNames.push_back(project->name);
    for (const auto& [name, secretId] : stored) {
      if (project->find(name) != nullptr) {
        outcome.unchanged.push_back(name);
        continue;
      }
      vault_.bind(project->id, EnvBinding{name, secretId, {}, {}});
      ++report.bindings;
      outcome.imported.push_back(name);
      if (!contains(report.keyNames, name)) report.keyNames.push_back(name);
    }
  } catch (const base::Error&) {
    outcome.error = std::string(kNotBound);
  }
}

Importer::Report Importer::apply(Plan plan) {
  Report report;
  report.filesScanned = static_cast<std::int64_t>(plan.files.size());
  report.skippedValues = plan.placeholders;
  report.runControlSkipped = plan.runControl;
  for (PlannedFile& file : plan.files) {
    FileOutcome& outcome = report.files.emplace_back();
    outcome.path = file.path;
    outcome.error = file.error;
    std::vector<std::pair<std::string, std::string>> stored;
    for (PlannedKey& key : file.keys) {
      switch (key.outcome) {
        case Outcome::create:
        case Outcome::exists:
        case Outcome::newVersion:
          try {
            stored.emplace_back(key.name, store(key, report));
          } catch (const SecretStoreError&) {
            fail(outcome, key.name, kNotStored);
          } catch (const VaultError& error) {
            fail(outcome, key.name, error.sentence());
          }
          break;
        case Outcome::unchanged:
          outcome.unchanged.push_back(key.name);
          break;
        case Outcome::tooLarge:
          fail(outcome, key.name, kTooLarge);
          break;
        case Outcome::excluded:
          outcome.excluded.push_back(key.name);
          break;
        case Outcome::runControl:
          break;
      }
    }
    if (stored.empty()) continue;
    bindInto(file, stored, outcome, report);
    if (!outcome.imported.empty()) report.importedFiles.push_back(file.path);
  }
  return report;
}

}  // namespace sorvane::vault
