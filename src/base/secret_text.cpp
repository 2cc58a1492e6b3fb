#include "base/secret_text.h"

#include <algorithm>
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

SecretText& SecretText::operator=(SecretText&& other) noexcept {
  if (this == &other) return *this;
  wipe(data_.get(), size_);
  data_ = std::move(other.data_);
  size_ = std::exchange(other.size_, 0);
  capacity_ = std::exchange(other.capacity_, 0);
  return *this;
}

void SecretText::grow(std::size_t needed) {
  constexpr std::size_t kSmallest = 32;
  const std::size_t capacity = std::max({needed, capacity_ * 2, kSmallest});
  auto block = std::make_unique_for_overwrite<char[]>(capacity);
  if (size_ > 0) std::memcpy(block.get(), data_.get(), size_);
  wipe(data_.get(), size_);
  data_ = std::move(block);
  capacity_ = capacity;
}

void SecretText::truncate(std::size_t size) {
  if (size >= size_) return;
  wipe(data_.get() + size, size_ - size);
  size_ = size;
}

void SecretText::resize(std::size_t size) {
  if (size <= size_) {
    truncate(size);
    return;
  }
  reserve(size);
  std::memset(data_.get() + size_, 0, size - size_);
  size_ = size;
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
