#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "crypto/digest.h"

namespace sorvane::proxy {

/// The head after a line: SHA-256 of the head before it and the line without its line feed. The first head is zeros.
crypto::Sha256Digest headAfter(const crypto::Sha256Digest& before, std::string_view line);

/// A place where the file is not as it was written. Lines are counted from the first that was ever recorded.
struct LedgerBreak {
  std::int64_t first = 0, last = 0;  ///< it begins at one of these
  std::int64_t missing = 0;          ///< how many lines fewer the file has than were sealed
  bool sealGone = false;             ///< nothing is known about the lines, because their seal is gone
  base::Date noticed{};
  bool operator==(const LedgerBreak&) const = default;
};

/// LedgerSeal vouches for the lines of the ledger. It is kept sealed, apart from the file. Lines that stand in the file
/// behind the last one that it counts are counted when they are read.
///
/// Beside the head it holds marks, the beginnings of the heads in between: the first that differs tells where a line
/// was changed. With few lines each has its mark; as they grow more, every second, fourth, ... keeps one.
struct LedgerSeal {
  static constexpr std::size_t kMostMarks = 400;
  static constexpr std::size_t kMostBreaks = 4;

  crypto::Sha256Digest anchor{};  ///< the head before the first line of the file
  std::int64_t dropped = 0;       ///< lines before it, which retention removed
  std::int64_t count = 0;         ///< lines from the anchor to the head
  crypto::Sha256Digest head{};
  std::int64_t spacing = 1;          ///< lines whose number is a multiple of it have a mark
  std::vector<std::uint32_t> marks;  ///< in their order
  /// Set while lines are removed: that many lines from this earlier anchor may still stand before the anchor.
  struct Cut {
    crypto::Sha256Digest anchor{};
    std::int64_t lines = 0;
    bool operator==(const Cut&) const = default;
  };
  std::optional<Cut> cut;
  std::vector<LedgerBreak> breaks;  ///< that were noticed and still lie in the file
  bool operator==(const LedgerSeal&) const = default;

  /// Takes the next line.
  void extend(std::string_view line);
  /// Moves the anchor behind the first `lines` lines, whose last head is `anchor`.
  void moveAnchor(std::int64_t lines, const crypto::Sha256Digest& anchor);
  void note(const LedgerBreak& found);
};

/// At most vault::SealedSettings::kMaxSettingBytes long.
std::string encodeSeal(const LedgerSeal& seal);
std::optional<LedgerSeal> decodeSeal(std::string_view text);

/// SealCheck compares the lines of a file with a seal as they are read, once, in their order.
class SealCheck {
 public:
  explicit SealCheck(const LedgerSeal& seal);
  void line(std::string_view line);

  struct Result {
    LedgerSeal seal;                    ///< what vouches for the file as it stands, whatever was changed in it
    std::int64_t leading = 0;           ///< lines at the beginning that retention has already removed from the seal
    std::int64_t unsealed = 0;          ///< lines behind those that the seal counts
    std::optional<LedgerBreak> broken;  ///< the first place; `noticed` is the caller's
  };
  Result finish();

 private:
  void begin();
  void compare();

  const LedgerSeal& seal_;
  LedgerSeal found_;
  std::int64_t lines_ = 0, leading_ = 0;
  crypto::Sha256Digest cutHead_{};
  std::int64_t good_ = 0;  ///< the number of the last line that a mark vouches for
  std::optional<LedgerBreak> broken_;
};

}  // namespace sorvane::proxy
