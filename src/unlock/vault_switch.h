#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/error.h"
#include "base/files.h"

namespace sorvane::unlock {

/// VaultSwitchError carries a sentence shown as it stands.
class VaultSwitchError : public base::Error {
 public:
  using Error::Error;
};

/// VaultSwitch puts the files of a new vault in the place of those in the support folder, which are set aside, whole
/// and untouched, in a folder of their own. What is on disk at each step:
///
///   a folder for the new files, filled               the old vault; a start removes the folder
///   the record that decides it                       the new vault; a start carries out what is left to do
///   each name: the old file set aside, the new in    same
///   the record and the empty folder removed          same
///
/// Nothing of the vault is open meanwhile. One caller at a time.
class VaultSwitch {
 public:
  /// `names` are the files and folders that a vault is made of.
  VaultSwitch(std::filesystem::path supportFolder, std::vector<std::string> names, base::Files& files)
      : folder_(std::move(supportFolder)), names_(std::move(names)), files_(files) {}

  /// Clears up after an end at any point. Called before anything of the vault is opened. Throws VaultSwitchError for a
  /// record that nobody can follow, and FileError.
  void settle();

  /// Makes an empty folder for the files of the new vault, on the same file system.
  std::filesystem::path makeStage();
  /// Removes one that is of no use any more, with all that is in it. Does not throw.
  void removeStage(const std::filesystem::path& stage);
  /// Puts what is in `stage` in place; all of it must be on the disk. Returns the folder with what was there. After a
  /// failure before the decision everything is as before; after one behind it `settle` does the rest, and until then
  /// nothing may be opened: `wasDecided` tells.
  std::filesystem::path carryOut(const std::filesystem::path& stage, base::Date now);
  bool wasDecided() const;

  /// Where the decision is recorded.
  static constexpr std::string_view kRecordName = "vault-switch.json";
  static constexpr std::string_view kStagePrefix = ".new-vault.";
  static constexpr std::string_view kAsidePrefix = "set-aside.";

 private:
  struct Record {
    std::string stage, aside;
    std::vector<std::string> put;  ///< names that the new vault has
  };
  std::string encode(const Record& record) const;
  Record decode(std::string_view text) const;
  void follow(const Record& record);
  void move(const std::filesystem::path& from, const std::filesystem::path& to);

  const std::filesystem::path folder_;
  const std::vector<std::string> names_;
  base::Files& files_;
};

}  // namespace sorvane::unlock
