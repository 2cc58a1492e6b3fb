#include "base/secret_text.h"

#include <atomic>
#include <cstring>

namespace sorvane::base {

void wipe(void* data, std::size_t size) noexcept {
  if (size == 0) return;
  std::memset(data, 0, size);
  // The barrier makes the compiler assume that the zeroes are read, so that it keeps the memset.
  asm volatile("" : : "r"(data) : "memory");
}

void wipe(std::string& text) noexcept {
  wipe(text.data(), text.size());
  text.clear();
}

void SecretText::truncate(std::size_t size) {
  if (size >= bytes_.size()) return;
  wipe(bytes_.data() + size, bytes_.size() - size);
  bytes_.resize(size);
}

void SecretText::resize(std::size_t size) {
  if (size < bytes_.size()) {
    truncate(size);
  } else {
    bytes_.resize(size);
  }
}

bool SecretText::sameAs(std::string_view other) const noexcept {
  return sameInConstantTime(view(), other);
}

bool sameInConstantTime(std::string_view left, std::string_view right) noexcept {
  if (left.size() != right.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < left.size(); ++i) {
    difference |= static_cast<unsigned>(static_cast<unsigned char>(left[i]) ^ static_cast<unsigned char>(right[i]));
  }
  return difference == 0;
}

}  // namespace sorvane::base
