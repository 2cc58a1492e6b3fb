#pragma once

#include <stdlib.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "agent/clipboard.h"
#include "base/clock.h"
#include "base/mutex.h"
#include "vault/revocation.h"
#include "vault/secret_store.h"

namespace sorvane::test {

/// A folder that is gone at the end of the test.
class TemporaryFolder {
 public:
  TemporaryFolder() : TemporaryFolder(std::filesystem::temp_directory_path()) {}
  /// One for tests that write more often than a disk likes, and that power losses do not concern.
  static TemporaryFolder inMemory() {
    const std::filesystem::path memory = "/dev/shm";
    return std::filesystem::is_directory(memory) ? TemporaryFolder(memory) : TemporaryFolder();
  }
  explicit TemporaryFolder(const std::filesystem::path& parent) {
    std::string name = (parent / "sorvane-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// A clock that stands still until it is moved.
class ManualClock final : public base::Clock {
 public:
  std::chrono::system_clock::time_point wall() const override {
    const base::Lock lock(mutex_);
    return wall_;
  }
  base::Instant instant() const override {
    const base::Lock lock(mutex_);
    return instant_;
  }
  void advance(std::chrono::nanoseconds by) {
    const base::Lock lock(mutex_);
    wall_ += std::chrono::duration_cast<std::chrono::system_clock::duration>(by);
    instant_ += by;
  }
  void setWall(base::Date date) {
    const base::Lock lock(mutex_);
    wall_ = date;
  }

 private:
  mutable base::Mutex mutex_;
  std::chrono::system_clock::time_point wall_ GUARDED_BY(mutex_) = std::chrono::sys_days{std::chrono::year{2026} / 11 /
                                                                                         21};
  base::Instant instant_ GUARDED_BY(mutex_){};
};

/// The in-memory store; it passes the contract suite of the real ones.
class MemorySecretStore final : public vault::EnumerableSecretStore {
 public:
  void store(std::string_view account, const base::SecretText& value) override {
    if (value.size() > vault::kMaxValueBytes) throw vault::SecretStoreError::tooLarge(value.size());
    const base::Lock lock(mutex_);
    values_.insert_or_assign(std::string(account), value.clone());
  }
  base::SecretText read(std::string_view account) override {
    const base::Lock lock(mutex_);
    const auto found = values_.find(account);
    if (found == values_.end()) throw vault::SecretStoreError::notFound();
    return found->second.clone();
  }
  void remove(std::string_view account) override {
    const base::Lock lock(mutex_);
    if (const auto found = values_.find(account); found != values_.end()) values_.erase(found);
  }
  std::vector<std::string> accounts() override {
    const base::Lock lock(mutex_);
    std::vector<std::string> names;
    for (const auto& entry : values_) names.push_back(entry.first);
    return names;
  }

 private:
  base::Mutex mutex_;
  std::map<std::string, base::SecretText, std::less<>> values_ GUARDED_BY(mutex_);
};

/// A clipboard in memory, which counts its changes when it is told to.
class MemoryClipboard final : public agent::Clipboard {
 public:
  enum class Changes { counted, notCounted };
  explicit MemoryClipboard(Changes changes = Changes::notCounted) : changes_(changes) {}
  bool available() const override { return true; }
  std::optional<base::SecretText> read() override {
    const base::Lock lock(mutex_);
    ++reads_;
    return text_.clone();
  }
  bool write(const base::SecretText& text) override {
    const base::Lock lock(mutex_);
    text_ = text.clone();
    othersSince_ = false;
    written_.notify_all();
    return true;
  }
  agent::StillThere lastWrite() override {
    const base::Lock lock(mutex_);
    if (changes_ == Changes::notCounted) return agent::StillThere::unknown;
    return othersSince_ ? agent::StillThere::no : agent::StillThere::yes;
  }
  /// Another program copies.
  void writeOfOthers(std::string_view text) {
    const base::Lock lock(mutex_);
    text_ = base::SecretText(text);
    othersSince_ = true;
  }
  int reads() {
    const base::Lock lock(mutex_);
    return reads_;
  }
  void waitUntilEmpty() {
    base::Lock lock(mutex_);
    while (!text_.empty()) written_.wait(lock.mutex());
  }

 private:
  base::Mutex mutex_;
  base::Condition written_;
  base::SecretText text_ GUARDED_BY(mutex_);
  const Changes changes_;
  bool othersSince_ GUARDED_BY(mutex_) = false;
  int reads_ GUARDED_BY(mutex_) = 0;
};

/// Remembers what the vault asked to end.
class RecordingRevoker final : public vault::SessionRevoker {
 public:
  void revoke(const vault::Revocation& revocation) override {
    const base::Lock lock(mutex_);
    revocations_.push_back(revocation);
  }
  std::vector<vault::Revocation> take() {
    const base::Lock lock(mutex_);
    return std::exchange(revocations_, {});
  }

 private:
  base::Mutex mutex_;
  std::vector<vault::Revocation> revocations_ GUARDED_BY(mutex_);
};

}  // namespace sorvane::test
