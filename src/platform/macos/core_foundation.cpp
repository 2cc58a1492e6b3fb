#include "platform/macos/core_foundation.h"

#include <new>

namespace sorvane::platform {

Owned<CFStringRef> stringOf(std::string_view text) {
  return Owned<CFStringRef>(CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                                    static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
}

std::optional<std::string> textOf(CFTypeRef object) {
  const auto string = as<CFStringRef>(object, CFStringGetTypeID);
  if (string == nullptr) return std::nullopt;
  const CFRange whole = CFRangeMake(0, CFStringGetLength(string));
  const auto convert = [&](UInt8* buffer, CFIndex limit, CFIndex* used) {
    // With 0 as the byte for what cannot be written, the conversion ends there.
    return CFStringGetBytes(string, whole, kCFStringEncodingUTF8, 0, false, buffer, limit, used) == whole.length;
  };
  CFIndex size = 0;
  if (!convert(nullptr, 0, &size)) return std::nullopt;
  std::string text(static_cast<std::size_t>(size), '\0');
  if (!convert(reinterpret_cast<UInt8*>(text.data()), size, nullptr)) return std::nullopt;
  return text;
}

std::optional<bool> truthOf(CFTypeRef object) {
  if (const auto boolean = as<CFBooleanRef>(object, CFBooleanGetTypeID)) return CFBooleanGetValue(boolean) != 0;
  const auto number = as<CFNumberRef>(object, CFNumberGetTypeID);
  double value = 0;
  if (number == nullptr || !CFNumberGetValue(number, kCFNumberDoubleType, &value)) return std::nullopt;
  return value != 0;
}

Attributes::Attributes()
    : dictionary_(CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                            &kCFTypeDictionaryValueCallBacks)) {
  if (!dictionary_) throw std::bad_alloc();
}

Attributes& Attributes::set(CFStringRef name, CFTypeRef value) {
  CFDictionarySetValue(dictionary_.get(), name, value);
  return *this;
}

}  // namespace sorvane::platform
