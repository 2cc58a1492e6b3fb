#pragma once

#include <string>
#include <vector>

#include "base/mutex.h"

namespace sorvane::vault {
class SealedSettings;
}

namespace sorvane::clients {

/// LedgerRow is one change of a client's configuration file, with what it takes to take it back.
struct LedgerRow {
  std::string client;   ///< the client's word
  std::string project;  ///< the project's folder; empty for the user's own file
  std::string file;
  std::string grantId;
  std::string undo;  ///< of setEntry
  bool createdFile = false;
  bool operator==(const LedgerRow&) const = default;
};

/// InstallLedger keeps every change that sorvane made to other programs' files in the sealed setting "install-ledger".
/// Any thread. Failures are vault::SettingError.
class InstallLedger {
 public:
  explicit InstallLedger(vault::SealedSettings& settings) : settings_(settings) {}

  std::vector<LedgerRow> rows();
  /// Replaces the row of the same client and project, or adds it.
  void put(const LedgerRow& row);
  void remove(const std::string& client, const std::string& project);

 private:
  std::vector<LedgerRow> load() REQUIRES(mutex_);
  void save(const std::vector<LedgerRow>& rows) REQUIRES(mutex_);

  vault::SealedSettings& settings_;
  // Held over the setting, which it guards.
  base::Mutex mutex_;
};

}  // namespace sorvane::clients
