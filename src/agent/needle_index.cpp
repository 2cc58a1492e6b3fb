#include "agent/needle_index.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace sorvane::agent {
namespace {

constexpr std::size_t kGram = 4;
/// Needles are told apart by at most this many of their first bytes before they are compared.
constexpr std::size_t kMostCovered = 16;
/// 2^19 bits are 64 KiB: the map stays in the nearest caches, and 20,000 grams fill a twenty-fifth of it.
constexpr unsigned kMapBits = 19;
constexpr std::uint32_t kNone = UINT32_MAX;
/// Knuth's multiplicative constant, 2^32 divided by the golden ratio.
constexpr std::uint32_t kSpread = 2654435769U;

std::uint32_t gramAt(const char* text) {
  std::uint32_t bytes;
  std::memcpy(&bytes, text, kGram);
  return bytes;
}

std::uint32_t mapSlot(std::uint32_t gram) {
  return (gram * kSpread) >> (32 - kMapBits);
}

unsigned char byteAt(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

}  // namespace

Masker::Index::Index(std::vector<base::SecretText> needles) : needles_(std::move(needles)), shortStart_(256, false) {
  std::size_t shortest = kMostCovered, grams = 0;
  for (const base::SecretText& needle : needles_) {
    longest_ = std::max(longest_, needle.size());
    if (needle.size() < kGram) {
      hasShort_ = true;
      shortStart_[byteAt(needle.view(), 0)] = true;
    } else {
      shortest = std::min(shortest, needle.size());
      ++grams;
    }
  }
  firstAt_.assign(257, static_cast<std::uint32_t>(needles_.size()));
  prefixOf_.assign(needles_.size(), kNone);
  for (std::size_t i = needles_.size(); i-- > 0;) {
    for (int b = byteAt(needles_[i].view(), 0); b >= 0 && firstAt_[static_cast<std::size_t>(b)] > i; --b) {
      firstAt_[static_cast<std::size_t>(b)] = static_cast<std::uint32_t>(i);
    }
  }
  for (std::size_t i = 1; i < needles_.size(); ++i) {
    // In sorted order the needles that begin this one lie on the chain of the one before it.
    std::uint32_t candidate = static_cast<std::uint32_t>(i - 1);
    while (candidate != kNone && !needles_[i].view().starts_with(needles_[candidate].view()))
      candidate = prefixOf_[candidate];
    prefixOf_[i] = candidate;
  }
  if (grams == 0) return;
  stride_ = shortest - kGram + 1;
  map_.assign((std::size_t{1} << kMapBits) / 64, 0);
  table_.assign(std::bit_ceil(grams * stride_ * 2), Gram{0, 0});
  for (const base::SecretText& needle : needles_) {
    if (needle.size() < kGram) continue;
    for (std::size_t offset = 0; offset < stride_; ++offset) addGram(gramAt(needle.view().data() + offset), offset);
  }
}

Masker::Index::~Index() {
  base::wipe(map_.data(), map_.size() * sizeof map_[0]);
  base::wipe(table_.data(), table_.size() * sizeof table_[0]);
}

void Masker::Index::addGram(std::uint32_t bytes, std::size_t offset) {
  const std::uint32_t bit = mapSlot(bytes);
  map_[bit / 64] |= std::uint64_t{1} << bit % 64;
  std::size_t slot = (bytes * kSpread >> 7) & (table_.size() - 1);
  while (table_[slot].offsets != 0 && table_[slot].bytes != bytes) slot = (slot + 1) & (table_.size() - 1);
  table_[slot].bytes = bytes;
  table_[slot].offsets |= 1U << offset;
}

std::uint32_t Masker::Index::offsetsOf(std::uint32_t bytes) const {
  std::size_t slot = (bytes * kSpread >> 7) & (table_.size() - 1);
  while (table_[slot].offsets != 0) {
    if (table_[slot].bytes == bytes) return table_[slot].offsets;
    slot = (slot + 1) & (table_.size() - 1);
  }
  return 0;
}

std::size_t Masker::Index::longestMatch(std::string_view text, std::size_t first, std::size_t last) const {
  // The longest needle that begins `text` is the last one not greater than it, or begins that one.
  const auto begin = needles_.begin() + static_cast<std::ptrdiff_t>(first),
             end = needles_.begin() + static_cast<std::ptrdiff_t>(last);
  const auto after = std::upper_bound(
      begin, end, text, [](std::string_view t, const base::SecretText& needle) { return t < needle.view(); });
  if (after == begin) return 0;
  std::uint32_t candidate = static_cast<std::uint32_t>(after - needles_.begin() - 1);
  while (candidate != kNone && candidate >= first) {
    if (text.starts_with(needles_[candidate].view())) return needles_[candidate].size();
    candidate = prefixOf_[candidate];
  }
  return 0;
}

std::size_t Masker::Index::openEnd(std::string_view text) const {
  for (std::size_t at = text.size() - std::min(text.size(), longest_ > 0 ? longest_ - 1 : 0); at < text.size(); ++at) {
    const std::string_view rest = text.substr(at);
    const unsigned char first = byteAt(rest, 0);
    const auto end = needles_.begin() + firstAt_[first + 1U];
    // Everything that `rest` begins stands right behind it.
    const auto after =
        std::upper_bound(needles_.begin() + firstAt_[first], end, rest,
                         [](std::string_view t, const base::SecretText& needle) { return t < needle.view(); });
    if (after != end && after->view().starts_with(rest)) return rest.size();
  }
  return 0;
}

void Masker::Index::find(std::string_view text, std::size_t limit, std::vector<Span>& found) const {
  const std::size_t before = found.size();
  if (stride_ > 0) findLong(text, limit, found);
  if (hasShort_) {
    findShort(text, limit, found);
    std::sort(found.begin() + static_cast<std::ptrdiff_t>(before), found.end(),
              [](const Span& a, const Span& b) { return a.start < b.start; });
  }
}

void Masker::Index::findLong(std::string_view text, std::size_t limit, std::vector<Span>& found) const {
  if (text.size() < kGram) return;
  const std::size_t last = text.size() - kGram;
  const char* const data = text.data();
  const std::uint64_t* const map = map_.data();
  for (std::size_t at = 0; at <= last && at < limit + stride_; at += stride_) {
    const std::uint32_t gram = gramAt(data + at), bit = mapSlot(gram);
    if ((map[bit / 64] >> bit % 64 & 1) == 0) continue;
    // From the largest offset down, so that starts come in ascending order.
    for (std::uint32_t offsets = offsetsOf(gram); offsets != 0;) {
      const unsigned offset = 31U - static_cast<unsigned>(std::countl_zero(offsets));
      offsets ^= 1U << offset;
      if (offset > at || at - offset >= limit) continue;
      const std::size_t start = at - offset;
      const unsigned char first = byteAt(text, start);
      const std::size_t size = longestMatch(text.substr(start), firstAt_[first], firstAt_[first + 1U]);
      if (size > 0) found.push_back({start, start + size});
    }
  }
}

void Masker::Index::findShort(std::string_view text, std::size_t limit, std::vector<Span>& found) const {
  for (std::size_t at = 0; at < std::min(limit, text.size()); ++at) {
    const unsigned char first = byteAt(text, at);
    if (!shortStart_[first]) continue;
    const std::size_t size = longestMatch(text.substr(at), firstAt_[first], firstAt_[first + 1U]);
    if (size > 0) found.push_back({at, at + size});
  }
}

}  // namespace sorvane::agent
