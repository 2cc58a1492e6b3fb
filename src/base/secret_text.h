#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sorvane::base {

/// Overwrites memory so that the compiler cannot leave the write out.
void wipe(void* data, std::size_t size) noexcept;

/// Wipes the characters of a string and empties it. For buffers of libraries that insist on std::string.
void wipe(std::string& text) noexcept;

/// SecretText holds text that must not outlive its owner: it is wiped on destruction and when it grows, moves without
/// leaving a copy, and copies only through `clone()`. It has no operator== and no stream operator on purpose; `sameAs`
/// compares in constant time for equal lengths.
class SecretText {
 public:
  SecretText() = default;
  explicit SecretText(std::string_view text) { append(text); }
  SecretText(SecretText&& other) noexcept
      : data_(std::move(other.data_)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  SecretText& operator=(SecretText&& other) noexcept;
  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;
  ~SecretText() { wipe(data_.get(), size_); }

  SecretText clone() const { return SecretText(view()); }
  /// The text; valid until the next change of this object.
  std::string_view view() const { return {data_.get(), size_}; }
  std::span<const std::uint8_t> bytes() const { return {reinterpret_cast<const std::uint8_t*>(data_.get()), size_}; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  void reserve(std::size_t size) {
    if (size > capacity_) grow(size);
  }
  /// `text` must not be a part of this object.
  void append(std::string_view text) {
    if (text.empty()) return;
    if (text.size() > capacity_ - size_) grow(size_ + text.size());
    std::memcpy(data_.get() + size_, text.data(), text.size());
    size_ += text.size();
  }
  void push_back(char character) {
    if (size_ == capacity_) grow(size_ + 1);
    data_[size_++] = character;
  }
  /// Drops everything behind `size`; the dropped characters are wiped.
  void truncate(std::size_t size);
  char* data() { return data_.get(); }
  /// New characters are zero.
  void resize(std::size_t size);
  bool sameAs(std::string_view other) const noexcept;

 private:
  /// Moves to a block of at least `needed` characters and at least twice the present one; the old block is wiped.
  void grow(std::size_t needed);

  // A block of its own in place of a vector with an allocator: large records are appended to at the speed of memory.
  std::unique_ptr<char[]> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

using Bytes = std::vector<std::uint8_t>;

inline std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
inline std::string_view textOf(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// Compares without stopping at the first difference; texts of different lengths differ at once.
bool sameInConstantTime(std::string_view left, std::string_view right) noexcept;

}  // namespace sorvane::base
