#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>

#include "apple/fake/objects.h"
#include "base/unicode.h"

namespace sorvane::test::apple {
namespace {

struct Register {
  std::mutex mutex;
  std::set<const void*> live;
  long constants = 0;
};

Register& everyObject() {
  static Register* const all = new Register;  // Constants of other files are made before and end after anything here.
  return *all;
}

}  // namespace

Object::Object(Kind kind) : kind_(kind) {
  const std::lock_guard lock(everyObject().mutex);
  everyObject().live.insert(this);
}

Object::~Object() {
  const std::lock_guard lock(everyObject().mutex);
  everyObject().live.erase(this);
}

void Object::release() {
  if (constant_) return;
  if (--references_ == 0) delete this;
}

void Object::makeConstant() {
  constant_ = true;
  const std::lock_guard lock(everyObject().mutex);
  ++everyObject().constants;
}

Object& objectOf(CFTypeRef reference) {
  const std::lock_guard lock(everyObject().mutex);
  if (!everyObject().live.contains(reference)) {
    std::fputs("a reference to no live object was used\n", stderr);
    std::abort();
  }
  return *static_cast<Object*>(const_cast<void*>(reference));
}

long liveObjects() {
  const std::lock_guard lock(everyObject().mutex);
  return static_cast<long>(everyObject().live.size()) - everyObject().constants;
}

bool String::equals(const Object& other) const {
  return other.kind() == Kind::string && static_cast<const String&>(other).bytes == bytes;
}

Data::Data(std::string copy)
    : Object(Kind::data),
      copy_(std::move(copy)),
      bytes_(reinterpret_cast<const UInt8*>(copy_.data())),
      size_(copy_.size()) {}

Array::~Array() {
  for (Object* const item : items) item->release();
}

Dictionary::~Dictionary() {
  for (const auto& [key, value] : entries_) {
    key->release();
    value->release();
  }
}

void Dictionary::set(Object& key, Object& value) {
  value.retain();
  for (auto& entry : entries_) {
    if (!entry.first->equals(key)) continue;
    std::exchange(entry.second, &value)->release();
    return;
  }
  key.retain();
  entries_.emplace_back(&key, &value);
}

Object* Dictionary::find(const Object& key) const {
  for (const auto& [name, value] : entries_) {
    if (name->equals(key)) return value;
  }
  return nullptr;
}

namespace {

CFTypeID idOf(Object::Kind kind) {
  return static_cast<CFTypeID>(kind);
}

class Boolean_ final : public Object {
 public:
  Boolean_() : Object(Kind::boolean) { makeConstant(); }
};

CFBooleanRef makeBoolean() {
  return refOf<CFBooleanRef>(new Boolean_);
}

}  // namespace
}  // namespace sorvane::test::apple

using namespace sorvane::test::apple;

extern "C" {

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFAllocatorRef kCFAllocatorNull = reinterpret_cast<CFAllocatorRef>(&kCFAllocatorNull);
const CFBooleanRef kCFBooleanTrue = makeBoolean();
const CFBooleanRef kCFBooleanFalse = makeBoolean();
const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks{};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks{};

CFTypeRef CFRetain(CFTypeRef object) {
  objectOf(object).retain();
  return object;
}
void CFRelease(CFTypeRef object) {
  objectOf(object).release();
}
CFTypeID CFGetTypeID(CFTypeRef object) {
  return idOf(objectOf(object).kind());
}
CFTypeID CFBooleanGetTypeID() {
  return idOf(Object::Kind::boolean);
}
CFTypeID CFNumberGetTypeID() {
  return idOf(Object::Kind::number);
}
CFTypeID CFStringGetTypeID() {
  return idOf(Object::Kind::string);
}
CFTypeID CFDataGetTypeID() {
  return idOf(Object::Kind::data);
}
CFTypeID CFArrayGetTypeID() {
  return idOf(Object::Kind::array);
}
CFTypeID CFDictionaryGetTypeID() {
  return idOf(Object::Kind::dictionary);
}
Boolean CFBooleanGetValue(CFBooleanRef boolean) {
  return boolean == kCFBooleanTrue;
}
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value) {
  if (type != kCFNumberDoubleType) std::abort();  // nobody here asks for another
  *static_cast<double*>(value) = as<Number>(number).value;
  return true;
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex count, CFStringEncoding, Boolean) {
  std::string text(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(count));
  if (!sorvane::base::isUtf8(text)) return nullptr;
  return refOf<CFStringRef>(new String(std::move(text)));
}

// A length counts UTF-16 units, as the real one does: one for each character, two for one beyond the basic plane.
CFIndex CFStringGetLength(CFStringRef string) {
  CFIndex length = 0;
  for (const char c : as<String>(string).bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0U) != 0x80U) length += byte >= 0xF0U ? 2 : 1;
  }
  return length;
}

CFIndex CFStringGetBytes(CFStringRef string, CFRange range, CFStringEncoding, UInt8, Boolean, UInt8* buffer,
                         CFIndex limit, CFIndex* used) {
  const std::string& bytes = as<String>(string).bytes;
  if (range.location != 0 || range.length != CFStringGetLength(string)) std::abort();  // only whole strings are read
  const auto size = static_cast<CFIndex>(bytes.size());
  if (buffer != nullptr) {
    if (limit < size) return 0;
    std::copy(bytes.begin(), bytes.end(), buffer);
  }
  if (used != nullptr) *used = size;
  return range.length;
}

CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef, const UInt8* bytes, CFIndex count, CFAllocatorRef deallocator) {
  if (bytes == nullptr || deallocator != kCFAllocatorNull) std::abort();  // nobody here gives memory away
  return refOf<CFDataRef>(new Data(bytes, static_cast<std::size_t>(count)));
}
CFIndex CFDataGetLength(CFDataRef data) {
  return static_cast<CFIndex>(as<Data>(data).size());
}
const UInt8* CFDataGetBytePtr(CFDataRef data) {
  return as<Data>(data).bytes();
}

CFIndex CFArrayGetCount(CFArrayRef array) {
  return static_cast<CFIndex>(as<Array>(array).items.size());
}
const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index) {
  return as<Array>(array).items.at(static_cast<std::size_t>(index));
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex, const CFDictionaryKeyCallBacks* keys,
                                                 const CFDictionaryValueCallBacks* values) {
  // Other callbacks would not keep the entries alive.
  if (keys != &kCFTypeDictionaryKeyCallBacks || values != &kCFTypeDictionaryValueCallBacks) std::abort();
  return refOf<CFMutableDictionaryRef>(new Dictionary);
}
void CFDictionarySetValue(CFMutableDictionaryRef dictionary, const void* key, const void* value) {
  as<Dictionary>(dictionary).set(objectOf(key), objectOf(value));
}
const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key) {
  return as<Dictionary>(dictionary).find(objectOf(key));
}

}  // extern "C"
