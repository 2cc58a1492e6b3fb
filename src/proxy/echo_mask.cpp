#include "proxy/echo_mask.h"

#include <string.h>

#include <algorithm>

namespace sorvane::proxy {
namespace {

constexpr char kMasked = '*';

enum class Slash { plain, escaped };

/// As a JSON string holds it. Keys are printable characters; anything else is left as it is.
base::SecretText jsonForm(std::string_view key, Slash slash) {
  base::SecretText form;
  for (const char c : key) {
    if (c == '"' || c == '\\' || (c == '/' && slash == Slash::escaped)) form.push_back('\\');
    form.push_back(c);
  }
  return form;
}

const char* findIn(std::string_view text, std::string_view needle) {
  if (text.size() < needle.size()) return nullptr;
  return static_cast<const char*>(::memmem(text.data(), text.size(), needle.data(), needle.size()));
}

}  // namespace

EchoMask::EchoMask(const base::SecretText& key) {
  if (key.size() < kShortestKey) return;
  needles_.push_back(key.clone());
  for (const Slash slash : {Slash::plain, Slash::escaped}) {
    base::SecretText form = jsonForm(key.view(), slash);
    const auto known = [&](const base::SecretText& needle) { return needle.sameAs(form.view()); };
    if (std::ranges::none_of(needles_, known)) needles_.push_back(std::move(form));
  }
}

EchoMask::~EchoMask() {
  base::wipe(held_);
  base::wipe(work_);
}

void EchoMask::maskWhole(std::string& text) const {
  for (const base::SecretText& needle : needles_) {
    std::size_t from = 0;
    while (const char* const found = findIn(std::string_view(text).substr(from), needle.view())) {
      from = static_cast<std::size_t>(found - text.data());
      std::fill_n(text.begin() + static_cast<std::ptrdiff_t>(from), needle.size(), kMasked);
    }
  }
}

std::size_t EchoMask::beginningAtEnd(std::string_view text) const {
  std::size_t longest = 0;
  for (const base::SecretText& needle : needles_) {
    const std::string_view whole = needle.view();
    std::string_view tail = text.substr(text.size() - std::min(text.size(), whole.size() - 1));
    while (tail.size() > longest) {
      const std::size_t first = tail.find(whole.front());
      if (first == std::string_view::npos) break;
      tail.remove_prefix(first);
      if (whole.starts_with(tail)) longest = std::max(longest, tail.size());
      tail.remove_prefix(1);
    }
  }
  return longest;
}

std::string_view EchoMask::pass(std::string_view bytes) {
  if (needles_.empty()) return bytes;
  std::string_view text = bytes;
  const auto isThere = [&](const base::SecretText& needle) { return findIn(text, needle.view()) != nullptr; };
  if (!held_.empty()) {
    work_.assign(held_).append(bytes);
    text = work_;
  }
  if (std::ranges::any_of(needles_, isThere)) {
    if (held_.empty()) work_.assign(bytes);
    maskWhole(work_);
    text = work_;
  }
  const std::size_t kept = beginningAtEnd(text);
  held_.assign(text.substr(text.size() - kept));
  return text.substr(0, text.size() - kept);
}

std::string_view EchoMask::rest() {
  work_.swap(held_);
  held_.clear();
  return work_;
}

}  // namespace sorvane::proxy
