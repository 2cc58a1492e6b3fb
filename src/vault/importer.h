#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/secret_text.h"
#include "vault/vault.h"

namespace sorvane::vault {

/// Importer turns the keys of a folder's .env files that look like credentials into secrets and environments. `plan`
/// reads every file once; `apply` uses what was read then, so that what an owner allowed is what is done. A plan tells
/// nothing about values in the vault: they are compared when it is applied, so that guesses cannot be tried unasked.
/// The files are never changed. One thread.
class Importer {
 public:
  /// What came of one file. Lists hold key names.
  struct FileOutcome {
    std::string path;
    std::vector<std::string> imported;
    std::vector<std::string> excluded;   ///< by the credential test or as a placeholder
    std::vector<std::string> unchanged;  ///< bound already, kept as they are
    std::vector<std::string> failed;
    std::map<std::string, std::string> failedReasons;
    std::optional<std::string> error;  ///< the whole file failed
  };
  struct Report {
    std::vector<FileOutcome> files;
    std::int64_t filesScanned = 0, secretsCreated = 0, secretsReused = 0, projectsCreated = 0, bindings = 0,
                 skippedValues = 0, runControlSkipped = 0;
    std::vector<std::string> keyNames, projectNames, importedFiles;
  };
  /// What a person sees before an import.
  struct ScanSummary {
    std::int64_t files = 0, totalKeys = 0, likelySecrets = 0;
    std::vector<std::string> environments;
  };

  enum class Outcome {
    create,      ///< a new secret
    exists,      ///< there is a secret of that name: it is used when it holds this value, else the key fails
    newVersion,  ///< the same, but the owner chose to give the secret this value
    unchanged,
    excluded,
    runControl,
    tooLarge
  };
  struct PlannedKey {
    std::string name;
    base::SecretText value;  ///< kept for what is imported only
    std::size_t length = 0;  ///< of the value, in bytes
    Outcome outcome = Outcome::excluded;
  };
  struct PlannedFile {
    std::string path;
    std::string folder;
    std::string environment;
    bool environmentExists = false;
    bool environmentIsFolders = false;  ///< its folder is this file's
    std::optional<std::string> proposedTarget;
    std::vector<PlannedKey> keys;
    std::vector<std::string> duplicates;  ///< keys that stand more than once; the last one counts
    std::optional<std::string> error;
  };
  struct Plan {
    std::string folder;
    std::vector<PlannedFile> files;
    std::vector<std::string> unreadable;  ///< folders that could not be read
    std::int64_t placeholders = 0, runControl = 0;

    bool importsAnything() const;
    ScanSummary summary() const;
  };
  struct Options {
    std::optional<std::string> environment;  ///< all files go into this one
    /// Keys whose secret of another value gets this value as a new version, as the file's path, a line feed and the
    /// name.
    std::vector<std::string> newVersions;
  };

  explicit Importer(Vault& vault) : vault_(vault) {}

  /// `folder` is an existing folder without links. Throws VaultError.
  Plan plan(const std::string& folder, const Options& options);
  /// Carries the plan out key by key; what fails is told in the report.
  Report apply(Plan plan);

 private:
  void place(PlannedFile& file, const Options& options, const Records& records);
  void sort(PlannedFile& file, const Options& options, const Records& records, Plan& plan);
  Outcome outcomeOf(const PlannedKey& key, const PlannedFile& file, const Options& options, const Records& records);
  /// The id of the secret that the key is bound to.
  std::string store(PlannedKey& key, Report& report);
  void bindInto(const PlannedFile& file, const std::vector<std::pair<std::string, std::string>>& stored,
                FileOutcome& outcome, Report& report);

  Vault& vault_;
};

/// "1 was left out because it changes how programs start." and its plural; empty for none.
std::string runControlSentence(std::int64_t count);

}  // namespace sorvane::vault
