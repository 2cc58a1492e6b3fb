#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace sorvane::test::apple {

/// Object is what every reference of Core Foundation refers to here. It is counted from its making to its end; a
/// release too many, or a use after the last one, ends the test program with a line that says so.
class Object {
 public:
  enum class Kind : CFTypeID {
    string = 1,
    data,
    array,
    dictionary,
    boolean,
    number,
    task,
    accessControl,
    runLoop,
    source
  };

  explicit Object(Kind kind);
  virtual ~Object();
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  Kind kind() const { return kind_; }
  /// How `object` is told from others: equal strings and equal data are the same key.
  virtual bool equals(const Object& other) const { return this == &other; }
  void retain() { ++references_; }
  void release();
  /// Lives until the program ends and is not counted.
  void makeConstant();

 private:
  const Kind kind_;
  std::atomic<long> references_{1};
  bool constant_ = false;
};

class String final : public Object {
 public:
  explicit String(std::string text) : Object(Kind::string), bytes(std::move(text)) {}
  bool equals(const Object& other) const override;
  const std::string bytes;
};

class Number final : public Object {
 public:
  explicit Number(double given) : Object(Kind::number), value(given) {}
  const double value;
};

class Data final : public Object {
 public:
  /// Owns a copy.
  explicit Data(std::string copy);
  /// Stands over the memory of somebody else.
  Data(const UInt8* bytes, std::size_t size) : Object(Kind::data), bytes_(bytes), size_(size) {}
  const UInt8* bytes() const { return bytes_; }
  std::size_t size() const { return size_; }

 private:
  const std::string copy_;
  const UInt8* bytes_;
  const std::size_t size_;
};

class Array final : public Object {
 public:
  /// Takes over one reference of each.
  explicit Array(std::vector<Object*> given) : Object(Kind::array), items(std::move(given)) {}
  ~Array() override;
  const std::vector<Object*> items;
};

class Dictionary final : public Object {
 public:
  Dictionary() : Object(Kind::dictionary) {}
  ~Dictionary() override;
  /// Keeps both alive; replaces what the key had.
  void set(Object& key, Object& value);
  Object* find(const Object& key) const;
  const std::vector<std::pair<Object*, Object*>>& entries() const { return entries_; }

 private:
  std::vector<std::pair<Object*, Object*>> entries_;
};

class Task final : public Object {
 public:
  Task() : Object(Kind::task) {}
};

/// The live object behind a reference.
Object& objectOf(CFTypeRef reference);
/// The same, which must be of the class asked for.
template <typename Class>
Class& as(CFTypeRef reference) {
  auto* const object = dynamic_cast<Class*>(&objectOf(reference));
  if (object == nullptr) std::abort();
  return *object;
}
template <typename Ref>
Ref refOf(Object* object) {
  return reinterpret_cast<Ref>(object);
}

/// Objects that were made and are not gone, constants apart.
long liveObjects();

/// Whether what the source stands for is told within the loop of the main thread.
bool isInMainLoop(CFRunLoopSourceRef source);

}  // namespace sorvane::test::apple
