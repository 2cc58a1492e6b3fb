#include "proxy/ledger_seal.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "base/codec.h"
#include "base/json.h"
#include "base/json_writer.h"
#include "base/secret_text.h"

namespace sorvane::proxy {
namespace {

using crypto::Sha256Digest;

/// The first four bytes of a head: enough to find a place. That nothing changed is told by the whole head.
std::uint32_t markOf(const Sha256Digest& head) {
  std::uint32_t mark = 0;
  for (std::size_t i = 0; i < sizeof mark; ++i) mark = mark << 8 | head[i];
  return mark;
}

std::string marksAsText(const std::vector<std::uint32_t>& marks) {
  base::Bytes bytes;
  for (const std::uint32_t mark : marks) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(mark >> shift));
  }
  return base::base64(bytes);
}

std::optional<std::vector<std::uint32_t>> marksOf(std::string_view text) {
  const auto bytes = base::parseBase64(text);
  if (!bytes || bytes->size() % 4 != 0 || bytes->size() > LedgerSeal::kMostMarks * 4) return std::nullopt;
  std::vector<std::uint32_t> marks(bytes->size() / 4);
  for (std::size_t i = 0; i < bytes->size(); ++i) marks[i / 4] = marks[i / 4] << 8 | (*bytes)[i];
  return marks;
}

std::optional<Sha256Digest> digestOf(const base::Json& json, const char* key) {
  const auto found = json.find(key);
  if (found == json.end() || !found->is_string()) return std::nullopt;
  const auto bytes = base::parseHex(found->get_ref<const std::string&>());
  Sha256Digest digest{};
  if (!bytes || bytes->size() != digest.size()) return std::nullopt;
  std::copy(bytes->begin(), bytes->end(), digest.begin());
  return digest;
}

/// -1 unless there is such a number that is not negative.
std::int64_t numberOf(const base::Json& json, const char* key) {
  const auto found = json.find(key);
  return found != json.end() && found->is_number_integer() ? found->get<std::int64_t>() : -1;
}

bool readBreaks(const base::Json& json, std::vector<LedgerBreak>& breaks) {
  const auto found = json.find("breaks");
  if (found == json.end()) return true;
  if (!found->is_array() || found->size() > LedgerSeal::kMostBreaks) return false;
  for (const base::Json& item : *found) {
    if (!item.is_object()) return false;
    const std::int64_t first = numberOf(item, "first"), last = numberOf(item, "last");
    const std::int64_t missing = numberOf(item, "missing"), at = numberOf(item, "noticed");
    if (first < 1 || last < first || missing < 0 || at < 0) return false;
    breaks.push_back({first, last, missing, item.contains("sealGone"), base::Date(std::chrono::seconds(at))});
  }
  return true;
}

std::int64_t firstMarked(std::int64_t after, std::int64_t spacing) {
  return (after / spacing + 1) * spacing;
}

}  // namespace

Sha256Digest headAfter(const Sha256Digest& before, std::string_view line) {
  std::string joined(before.size() + line.size(), '\0');
  std::memcpy(joined.data(), before.data(), before.size());
  if (!line.empty()) std::memcpy(joined.data() + before.size(), line.data(), line.size());
  return crypto::sha256(base::bytesOf(joined));
}

void LedgerSeal::extend(std::string_view line) {
  head = headAfter(head, line);
  ++count;
  if ((dropped + count) % spacing != 0) return;
  marks.push_back(markOf(head));
  while (marks.size() > kMostMarks) {
    const std::int64_t first = firstMarked(dropped, spacing);
    std::vector<std::uint32_t> kept;
    for (std::size_t i = 0; i < marks.size(); ++i) {
      if ((first + static_cast<std::int64_t>(i) * spacing) % (spacing * 2) == 0) kept.push_back(marks[i]);
    }
    spacing *= 2;
    marks = std::move(kept);
  }
}

void LedgerSeal::moveAnchor(std::int64_t lines, const Sha256Digest& newAnchor) {
  const std::int64_t gone = (dropped + lines) / spacing - dropped / spacing;
  marks.erase(marks.begin(), marks.begin() + std::min<std::int64_t>(gone, static_cast<std::int64_t>(marks.size())));
  dropped += lines;
  count -= lines;
  anchor = newAnchor;
  std::erase_if(breaks, [&](const LedgerBreak& found) { return found.last <= dropped; });
}

void LedgerSeal::note(const LedgerBreak& found) {
  // The earliest places say the most; the last one tells that it went on.
  if (breaks.size() == kMostBreaks) breaks.pop_back();
  breaks.push_back(found);
}

std::string encodeSeal(const LedgerSeal& seal) {
  base::JsonWriter out;
  out.beginObject().field("anchor", base::hexLower(seal.anchor)).key("dropped").integer(seal.dropped);
  out.key("count").integer(seal.count).field("head", base::hexLower(seal.head));
  out.key("spacing").integer(seal.spacing).field("marks", marksAsText(seal.marks));
  if (seal.cut) {
    out.key("cut").beginObject().field("anchor", base::hexLower(seal.cut->anchor));
    out.key("lines").integer(seal.cut->lines).endObject();
  }
  if (!seal.breaks.empty()) {
    out.key("breaks").beginArray();
    for (const LedgerBreak& found : seal.breaks) {
      out.beginObject().key("first").integer(found.first).key("last").integer(found.last);
      out.key("missing").integer(found.missing);
      if (found.sealGone) out.key("sealGone").boolean(true);
      out.key("noticed").integer(found.noticed.time_since_epoch().count()).endObject();
    }
    out.endArray();
  }
  out.endObject();
  return std::string(out.view());
}

std::optional<LedgerSeal> decodeSeal(std::string_view text) {
  const auto json = base::parseJson(text);
  if (!json || !json->is_object()) return std::nullopt;
  LedgerSeal seal;
  const auto anchor = digestOf(*json, "anchor"), head = digestOf(*json, "head");
  const auto marks = json->find("marks");
  const auto read = marks != json->end() && marks->is_string() ? marksOf(marks->get_ref<const std::string&>())
                                                               : std::optional<std::vector<std::uint32_t>>();
  seal.dropped = numberOf(*json, "dropped");
  seal.count = numberOf(*json, "count");
  seal.spacing = numberOf(*json, "spacing");
  if (!anchor || !head || !read || seal.dropped < 0 || seal.count < 0 || seal.spacing < 1) return std::nullopt;
  seal.anchor = *anchor;
  seal.head = *head;
  seal.marks = *read;
  const std::int64_t marked = (seal.dropped + seal.count) / seal.spacing - seal.dropped / seal.spacing;
  if (marked != static_cast<std::int64_t>(seal.marks.size())) return std::nullopt;
  if (const auto cut = json->find("cut"); cut != json->end()) {
    const auto before = cut->is_object() ? digestOf(*cut, "anchor") : std::nullopt;
    if (!before || numberOf(*cut, "lines") < 1) return std::nullopt;
    seal.cut = {*before, numberOf(*cut, "lines")};
  }
  if (!readBreaks(*json, seal.breaks)) return std::nullopt;
  return seal;
}

SealCheck::SealCheck(const LedgerSeal& seal) : seal_(seal) {
  begin();
  if (seal.cut) cutHead_ = seal.cut->anchor;
}

void SealCheck::begin() {
  found_ = LedgerSeal();
  found_.anchor = found_.head = seal_.anchor;
  found_.dropped = good_ = seal_.dropped;
  found_.spacing = seal_.spacing;
  found_.breaks = seal_.breaks;
  broken_.reset();
}

void SealCheck::line(std::string_view line) {
  found_.extend(line);
  compare();
  ++lines_;
  if (!seal_.cut || lines_ > seal_.cut->lines) return;
  cutHead_ = headAfter(cutHead_, line);
  // The lines so far are those that were to be removed: what the seal counts begins behind them.
  if (lines_ == seal_.cut->lines && cutHead_ == seal_.anchor) {
    leading_ = lines_;
    begin();
  }
}

void SealCheck::compare() {
  if (broken_ || found_.count > seal_.count) return;
  const std::int64_t number = found_.dropped + found_.count;
  bool same = true;
  if (number % seal_.spacing == 0) {
    const auto index = static_cast<std::size_t>(number / seal_.spacing - seal_.dropped / seal_.spacing - 1);
    same = seal_.marks[index] == markOf(found_.head);
    if (same) good_ = number;
  }
  if (found_.count == seal_.count) same = same && found_.head == seal_.head;
  if (!same) broken_ = LedgerBreak{std::min(good_ + 1, number), number};
}

SealCheck::Result SealCheck::finish() {
  if (!broken_ && found_.count < seal_.count) {
    broken_ = LedgerBreak{good_ + 1, seal_.dropped + seal_.count};
  }
  if (broken_) broken_->missing = std::max<std::int64_t>(seal_.count - found_.count, 0);
  const std::int64_t unsealed = std::max<std::int64_t>(found_.count - seal_.count, 0);
  // Lines that were to be removed, found again.
  if (leading_ > 0) found_.cut = seal_.cut;
  return {std::move(found_), leading_, unsealed, broken_};
}

}  // namespace sorvane::proxy
