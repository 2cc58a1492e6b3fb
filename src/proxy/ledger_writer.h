#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/files.h"
#include "proxy/ledger_file.h"
#include "proxy/ledger_seal.h"
#include "proxy/ledger_trouble.h"
#include "vault/sealed_settings.h"

namespace sorvane::proxy {

/// What is kept: so many lines, and none older than this.
inline constexpr std::int64_t kRetentionLines = 50'000;
inline constexpr std::chrono::days kRetention{90};
/// How many lines are recorded between two looks at the age of the oldest. So many are also removed at once, at least,
/// when there are too many, since the file is written anew for it.
inline constexpr std::int64_t kRetentionCheckLines = 500;
/// Lines that wait for the disk at most; later ones are lost and counted.
inline constexpr std::size_t kMostWaiting = 8'192;
/// The seal is renewed at most this often. After a failure, the file and the seal are tried again this often.
inline constexpr std::chrono::seconds kSealRenewal{1}, kFileRetry{1}, kSealRetry{30};

/// LedgerWriter writes the ledger's lines and its seal. Used by one thread at a time. Failures are kept in `trouble`
/// and tried again; nothing is thrown.
///
/// A seal never counts lines that are not on the disk. Old lines leave in three steps: the seal's anchor moves behind
/// them, with a note of how many may still stand before it; the file is written anew; the note goes with the next
/// renewal. Whatever step a crash comes after, the file agrees with its seal.
class LedgerWriter {
 public:
  struct Ports {
    base::Files& files;
    vault::SealedSettings& settings;
    const base::Clock& clock;
  };
  LedgerWriter(std::filesystem::path path, Ports ports) : path_(std::move(path)), ports_(ports) {}

  /// Adds the lines, with one write and one sync, behind those that could not be written earlier.
  void write(std::vector<std::string> lines);
  enum class When { due, now };
  /// Saves the seal when it is older than the file.
  void renew(When when);
  /// Reads the seal and compares the file with it, unless that was done before.
  void look() { open(); }
  /// Whether something is to be tried again, or the seal is to be renewed later.
  bool owes() const { return dirty_ || !unwritten_.empty() || (opened_ && !seal_); }

  struct Snapshot {
    OpenLedger file;
    std::optional<LedgerSeal> seal;  ///< of that file; nullopt while it could not be read
  };
  /// Throws base::FileError.
  Snapshot snapshot();
  LedgerTrouble trouble() const;

 private:
  void open();
  void settleTail();
  void adopt(const std::optional<LedgerSeal>& sealed, const OpenLedger& file);
  void prune(std::int64_t room);
  void removeFirst(std::string_view text, std::int64_t lines, SealCheck::Result check);
  bool save(const LedgerSeal& seal);

  const std::filesystem::path path_;
  const Ports ports_;
  std::optional<LedgerSeal> seal_;
  std::vector<std::string> unwritten_;
  bool opened_ = false, dirty_ = false;
  bool isSealed_ = false;  ///< there is a saved seal
  std::int64_t sinceCheck_ = 0;
  base::Instant nextOpening_{}, nextRenewal_{}, nextWrite_{};
  std::optional<std::string> fileTrouble_, sealTrouble_;
  std::int64_t lost_ = 0;
};

}  // namespace sorvane::proxy
