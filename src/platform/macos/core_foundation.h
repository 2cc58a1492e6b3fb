#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace sorvane::platform {

/// Owned holds one reference to an object of Core Foundation and gives it up at its end. `Ref` is its reference type,
/// such as CFStringRef.
template <typename Ref>
class Owned {
 public:
  Owned() = default;
  /// Takes over the reference that a function with Create or Copy in its name gave.
  explicit Owned(Ref given) : ref_(given) {}
  Owned(Owned&& other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
  Owned& operator=(Owned&& other) noexcept {
    if (this != &other) release(std::exchange(ref_, std::exchange(other.ref_, nullptr)));
    return *this;
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() { release(ref_); }

  Ref get() const { return ref_; }
  explicit operator bool() const { return ref_ != nullptr; }
  /// Where a function puts the reference that it gives. What was held is given up.
  Ref* place() {
    release(std::exchange(ref_, nullptr));
    return &ref_;
  }

 private:
  static void release(Ref ref) {
    if (ref != nullptr) CFRelease(ref);
  }
  Ref ref_ = nullptr;
};

/// Empty unless `text` is UTF-8.
Owned<CFStringRef> stringOf(std::string_view text);

/// The string in UTF-8; nullopt for an object of another kind, for none, and for what has no UTF-8.
std::optional<std::string> textOf(CFTypeRef object);

/// What a Boolean or a number says; nullopt for an object of another kind and for none.
std::optional<bool> truthOf(CFTypeRef object);

/// The object as a `Ref`, whose type function is `typeId`; null for an object of another kind and for none.
template <typename Ref>
Ref as(CFTypeRef object, CFTypeID (*typeId)()) {
  return object != nullptr && CFGetTypeID(object) == typeId() ? static_cast<Ref>(object) : nullptr;
}

/// Attributes is a dictionary of strings to objects, which it keeps alive.
class Attributes {
 public:
  Attributes();
  Attributes& set(CFStringRef name, CFTypeRef value);
  CFDictionaryRef get() const { return dictionary_.get(); }

 private:
  Owned<CFMutableDictionaryRef> dictionary_;
};

}  // namespace sorvane::platform
