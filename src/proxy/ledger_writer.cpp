#include "proxy/ledger_writer.h"

#include <algorithm>

#include "proxy/call_record.h"

namespace sorvane::proxy {
namespace {

/// Calls `take` with each line of a text and where the next begins, until it returns false.
template <typename Take>
void eachLineOf(std::string_view text, const Take& take) {
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::size_t next = std::min(end + 1, text.size());
    if (!take(text.substr(start, std::min(end - start, kMostLineBytes)), next)) return;
    start = next;
  }
}

/// How many of the first lines behind the `leading` ones are older than `oldest`; what cannot be read goes with them.
std::int64_t linesBefore(std::string_view text, std::int64_t leading, base::Date oldest) {
  std::int64_t seen = 0, old = 0;
  eachLineOf(text, [&](std::string_view line, std::size_t) {
    if (++seen <= leading) return true;
    const auto record = decodeCall(line);
    if (record && record->at >= oldest) return false;
    if (record) old = seen - leading;
    return true;
  });
  return old;
}

}  // namespace

void LedgerWriter::write(std::vector<std::string> lines) {
  for (std::string& line : lines) {
    if (unwritten_.size() < kMostWaiting) {
      unwritten_.push_back(std::move(line));
    } else {
      ++lost_;
    }
  }
  const base::Instant now = ports_.clock.instant();
  if (unwritten_.empty() || (fileTrouble_ && now < nextWrite_)) return;
  open();
  const auto room = static_cast<std::int64_t>(unwritten_.size());
  if (seal_ && (sinceCheck_ >= kRetentionCheckLines || seal_->count + room > kRetentionLines)) prune(room);
  // Before the first line, so that a seal which is missing later was removed.
  if (seal_ && !isSealed_ && now >= nextRenewal_) save(*seal_);
  std::string text;
  for (const std::string& line : unwritten_) text.append(line).push_back('\n');
  try {
    openLedger(path_);  // for what it checks
    ports_.files.append(path_, base::bytesOf(text));
  } catch (const base::FileError& error) {
    fileTrouble_ = error.sentence();
    nextWrite_ = now + kFileRetry;
    return;
  }
  fileTrouble_.reset();
  if (seal_) {
    for (const std::string& line : unwritten_) seal_->extend(line);
    dirty_ = true;
  }
  sinceCheck_ += room;
  unwritten_.clear();
}

void LedgerWriter::renew(When when) {
  const base::Instant now = ports_.clock.instant();
  if (opened_ && !seal_) open();
  if (!seal_ || !dirty_ || (when == When::due && now < nextRenewal_)) return;
  save(*seal_);
}

bool LedgerWriter::save(const LedgerSeal& seal) {
  const base::Instant now = ports_.clock.instant();
  try {
    ports_.settings.save(vault::kProxyLedgerHeadSetting, encodeSeal(seal));
  } catch (const base::Error& error) {
    sealTrouble_ = error.sentence();
    nextRenewal_ = now + kSealRetry;
    return false;
  }
  sealTrouble_.reset();
  nextRenewal_ = now + kSealRenewal;
  dirty_ = false;
  isSealed_ = true;
  return true;
}

void LedgerWriter::open() {
  const base::Instant now = ports_.clock.instant();
  if (seal_ || (opened_ && now < nextOpening_)) return;
  opened_ = true;
  nextOpening_ = now + kSealRetry;
  std::optional<LedgerSeal> sealed;
  try {
    if (const auto text = ports_.settings.load(vault::kProxyLedgerHeadSetting)) sealed = decodeSeal(text->view());
    sealTrouble_.reset();
  } catch (const vault::SettingError& error) {
    // A seal that the vault's key does not open will never be opened: it is as good as gone.
    if (error.kind() != vault::SettingError::Case::wrongKey) {
      sealTrouble_ = error.sentence();
      return;
    }
  } catch (const base::Error& error) {
    sealTrouble_ = error.sentence();
    return;
  }
  try {
    settleTail();
    adopt(sealed, openLedger(path_));
  } catch (const base::FileError& error) {
    fileTrouble_ = error.sentence();
    seal_.reset();
  }
}

void LedgerWriter::settleTail() {
  const OpenLedger file = openLedger(path_);
  if (!file.file || file.size == 0) return;
  const auto contents = ports_.files.read(path_);
  if (!contents || contents->bytes.empty() || contents->bytes.back() == '\n') return;
  const std::string_view text = base::textOf(contents->bytes);
  const std::size_t lineFeed = text.rfind('\n');
  const std::size_t start = lineFeed == std::string_view::npos ? 0 : lineFeed + 1;
  const bool whole = decodeCall(text.substr(start)).has_value();
  if (whole) {
    ports_.files.append(path_, base::bytesOf("\n"));
  } else {
    ports_.files.writeAtomically(path_, base::bytesOf(text.substr(0, start)));
  }
}

void LedgerWriter::adopt(const std::optional<LedgerSeal>& sealed, const OpenLedger& file) {
  const LedgerSeal none;
  SealCheck check(sealed ? *sealed : none);
  eachLine(file, [&](std::string_view line) { check.line(line); });
  SealCheck::Result result = check.finish();
  seal_ = std::move(result.seal);
  if (!sealed && seal_->count > 0) {
    seal_->note({1, seal_->count, 0, true, ports_.clock.now()});
  } else if (result.broken) {
    result.broken->noticed = ports_.clock.now();
    seal_->note(*result.broken);
  }
  dirty_ = result.broken || result.unsealed > 0;
  isSealed_ = sealed.has_value();
  sinceCheck_ = kRetentionCheckLines;
}

void LedgerWriter::prune(std::int64_t room) {
  try {
    const auto contents = ports_.files.read(path_);
    const std::string_view text = contents ? base::textOf(contents->bytes) : std::string_view();
    SealCheck check(*seal_);
    eachLineOf(text, [&](std::string_view line, std::size_t) {
      check.line(line);
      return true;
    });
    SealCheck::Result result = check.finish();
    if (result.broken) {
      result.broken->noticed = ports_.clock.now();
      result.seal.note(*result.broken);
      dirty_ = true;
    }
    std::int64_t drop = linesBefore(text, result.leading, ports_.clock.now() - kRetention);
    const std::int64_t excess = result.seal.count + room - kRetentionLines;
    if (excess > 0) drop = std::max(drop, std::min(result.seal.count, excess + kRetentionCheckLines));
    seal_ = result.seal;
    if (drop > 0 || result.leading > 0) removeFirst(text, drop, std::move(result));
    sinceCheck_ = 0;
  } catch (const base::FileError& error) {
    fileTrouble_ = error.sentence();
  }
}

void LedgerWriter::removeFirst(std::string_view text, std::int64_t lines, SealCheck::Result check) {
  crypto::Sha256Digest anchor = check.seal.anchor;
  std::int64_t seen = 0;
  std::size_t rest = 0;
  eachLineOf(text, [&](std::string_view line, std::size_t next) {
    if (seen == check.leading + lines) return false;
    if (++seen > check.leading) anchor = headAfter(anchor, line);
    rest = next;
    return true;
  });
  LedgerSeal moved = std::move(check.seal);
  moved.cut = LedgerSeal::Cut{check.leading > 0 ? moved.cut->anchor : moved.anchor, check.leading + lines};
  moved.moveAnchor(lines, anchor);
  if (!save(moved)) return;
  seal_ = std::move(moved);
  ports_.files.writeAtomically(path_, base::bytesOf(text.substr(rest)));
  seal_->cut.reset();
  dirty_ = true;
}

LedgerWriter::Snapshot LedgerWriter::snapshot() {
  open();
  return {openLedger(path_), seal_};
}

LedgerTrouble LedgerWriter::trouble() const {
  LedgerTrouble trouble{fileTrouble_, sealTrouble_, lost_, 0, {}};
  if (seal_) {
    trouble.dropped = seal_->dropped;
    trouble.breaks = seal_->breaks;
  }
  return trouble;
}

}  // namespace sorvane::proxy
