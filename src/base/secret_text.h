#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::base {

/// Overwrites memory so that the compiler cannot leave the write out.
void wipe(void* data, std::size_t size) noexcept;

/// Wipes the characters of a string and empties it. For buffers of libraries that insist on std::string.
void wipe(std::string& text) noexcept;

/// WipingAllocator wipes every block before it is given back, so that a growing container leaves no copy behind.
template <typename T>
struct WipingAllocator {
  using value_type = T;
  WipingAllocator() = default;
  template <typename U>
  WipingAllocator(const WipingAllocator<U>&) noexcept {}
  T* allocate(std::size_t count) { return std::allocator<T>{}.allocate(count); }
  void deallocate(T* block, std::size_t count) noexcept {
    wipe(block, count * sizeof(T));
    std::allocator<T>{}.deallocate(block, count);
  }
  template <typename U>
  bool operator==(const WipingAllocator<U>&) const noexcept {
    return true;
  }
};

/// SecretText holds text that must not outlive its owner: it is wiped on destruction and when it grows, moves without
/// leaving a copy, and copies only through `clone()`. It has no operator== and no stream operator on purpose; `sameAs`
/// compares in constant time for equal lengths.
class SecretText {
 public:
  SecretText() = default;
  explicit SecretText(std::string_view text) : bytes_(text.begin(), text.end()) {}
  SecretText(SecretText&&) noexcept = default;
  SecretText& operator=(SecretText&&) noexcept = default;
  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;

  SecretText clone() const { return SecretText(view()); }
  /// The text; valid until the next change of this object.
  std::string_view view() const { return {bytes_.data(), bytes_.size()}; }
  std::span<const std::uint8_t> bytes() const {
    return {reinterpret_cast<const std::uint8_t*>(bytes_.data()), bytes_.size()};
  }
  std::size_t size() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }
  void reserve(std::size_t size) { bytes_.reserve(size); }
  void append(std::string_view text) { bytes_.insert(bytes_.end(), text.begin(), text.end()); }
  void push_back(char character) { bytes_.push_back(character); }
  /// Drops everything behind `size`; the dropped characters are wiped.
  void truncate(std::size_t size);
  char* data() { return bytes_.data(); }
  void resize(std::size_t size);
  bool sameAs(std::string_view other) const noexcept;

 private:
  std::vector<char, WipingAllocator<char>> bytes_;
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
