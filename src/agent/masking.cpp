#include "agent/masking.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "agent/needle_index.h"
#include "agent/needles.h"
#include "base/unicode.h"

namespace sorvane::agent {
namespace {

/// Utf8Output passes well-formed text on and puts U+FFFD in the place of everything else, whatever the pieces it comes
/// in.
class Utf8Output {
 public:
  void write(std::string_view text, std::string& out) {
    if (!partial_.empty()) {
      // At most three bytes wait here; finish their character before the fast way is taken.
      const std::size_t take = std::min<std::size_t>(text.size(), 4);
      std::string head = partial_ + std::string(text.substr(0, take));
      const base::Decoded decoded = base::decodeUtf8(head);
      if (!decoded.valid && isCut(head, decoded)) {
        partial_ = head;
        return;
      }
      const std::size_t waited = partial_.size();
      partial_.clear();
      out += decoded.valid ? std::string_view(head).substr(0, decoded.size) : kReplacement;
      if (decoded.size < waited) write(std::string_view(head).substr(decoded.size, waited - decoded.size), out);
      text.remove_prefix(decoded.size > waited ? decoded.size - waited : 0);
      return write(text, out);
    }
    while (!text.empty()) {
      const std::size_t plain = asciiPrefix(text);
      out.append(text.substr(0, plain));
      text.remove_prefix(plain);
      if (text.empty()) return;
      const base::Decoded decoded = base::decodeUtf8(text);
      if (!decoded.valid && isCut(text, decoded)) {
        partial_ = text;
        return;
      }
      out += decoded.valid ? text.substr(0, decoded.size) : kReplacement;
      text.remove_prefix(decoded.size);
    }
  }
  /// Nothing more follows what waits.
  void end(std::string& out) {
    if (!partial_.empty()) out += kReplacement;
    partial_.clear();
  }

 private:
  static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

  /// The ill-formed part reaches the end of the text and is the start of a longer character.
  static bool isCut(std::string_view text, const base::Decoded& decoded) {
    if (decoded.size != text.size() || text.size() > 3) return false;
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t wanted = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    return first >= 0xC2 && first <= 0xF4 && text.size() < wanted;
  }
  static std::size_t asciiPrefix(std::string_view text) {
    std::size_t at = 0;
    constexpr std::size_t kBlock = 32;
    for (; at + kBlock <= text.size(); at += kBlock) {
      std::uint64_t words[4];
      std::memcpy(words, text.data() + at, kBlock);
      if (((words[0] | words[1] | words[2] | words[3]) & 0x8080808080808080U) != 0) break;
    }
    while (at < text.size() && static_cast<unsigned char>(text[at]) < 0x80) ++at;
    return at;
  }

  std::string partial_;
};

}  // namespace

Masker::Masker(std::span<const std::string_view> values) : index_(std::make_unique<Index>(needlesOf(values))) {}
Masker::~Masker() = default;
Masker::Masker(Masker&&) noexcept = default;
Masker& Masker::operator=(Masker&&) noexcept = default;
std::size_t Masker::longestNeedle() const {
  return index_->longest();
}

struct MaskingStream::State {
  const Masker::Index& index;
  base::SecretText held;   ///< input that may still become part of a match
  std::size_t masked = 0;  ///< its first bytes that lie under a mask already written
  std::size_t shown = 0;   ///< its first bytes that a pause wrote, kept because a value may begin there
  std::vector<Span> found;
  Utf8Output output;

  explicit State(const Masker::Index& i) : index(i) {}

  /// Bytes at the start of `held` that were written already, in the clear or under a mask.
  std::size_t written() const { return std::max(masked, shown); }

  /// Writes what of the first `limit` bytes is not written yet; returns where the last mask ends.
  std::size_t write(std::size_t limit, std::string& out) {
    const std::string_view text = held.view();
    found.clear();
    index.find(text, limit, found);
    std::size_t at = std::min(written(), limit), covered = masked;
    for (const Span& span : found) {
      if (span.end <= shown) continue;
      if (span.start >= covered) {
        if (span.start > at) output.write(text.substr(at, span.start - at), out);
        output.end(out);
        out += kMask;
      }
      covered = std::max(covered, span.end);
      at = std::max(at, std::min(covered, limit));
    }
    if (at < limit) output.write(text.substr(at, limit - at), out);
    return covered;
  }
  /// Writes everything before `limit` and leaves the rest held.
  void release(std::size_t limit, std::string& out) {
    const std::size_t covered = write(limit, out);
    masked = covered > limit ? covered - limit : 0;
    shown = shown > limit ? shown - limit : 0;
    const std::size_t rest = held.size() - limit;
    if (rest > 0) std::memmove(held.data(), held.data() + limit, rest);
    held.truncate(rest);
  }
};

MaskingStream::MaskingStream(const Masker& masker) : state_(std::make_unique<State>(*masker.index_)) {}
MaskingStream::~MaskingStream() = default;

void MaskingStream::feed(std::string_view piece, std::string& out) {
  // A large piece is taken in parts, so that what is copied stays in the cache and memory stays bounded.
  constexpr std::size_t kPart = 256 * 1024;
  const std::size_t longest = state_->index.longest();
  if (longest == 0) return state_->output.write(piece, out);
  while (!piece.empty()) {
    state_->held.append(piece.substr(0, kPart));
    piece.remove_prefix(std::min(piece.size(), kPart));
    // A match that begins in the last `longest - 1` bytes may not be whole yet.
    if (state_->held.size() >= longest) state_->release(state_->held.size() - longest + 1, out);
  }
}

void MaskingStream::settle(std::string& out) {
  const std::string_view text = state_->held.view();
  if (!text.empty()) state_->release(text.size() - state_->index.openEnd(text), out);
}

void MaskingStream::pause(std::string& out) {
  settle(out);
  const std::size_t size = state_->held.size();
  if (size == 0 || size >= kKeptAcrossPauses) return;
  state_->masked = state_->write(size, out);
  state_->shown = size;
}

bool MaskingStream::holds() const {
  return state_->held.size() > state_->written();
}

void MaskingStream::finish(std::string& out) {
  state_->release(state_->held.size(), out);
  state_->output.end(out);
}

void MaskingStream::cut(std::string& out) {
  state_->held.truncate(0);
  state_->masked = state_->shown = 0;
  state_->output.end(out);
}

}  // namespace sorvane::agent
