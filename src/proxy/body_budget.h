#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "base/mutex.h"

namespace sorvane::proxy {

/// ProxyBodyBudget bounds the memory of all request bodies together. Any thread.
class ProxyBodyBudget {
 public:
  explicit ProxyBodyBudget(std::int64_t limit) : limit_(limit) {}

  /// Share is a request's part, given back when it goes.
  class Share {
   public:
    Share(Share&& other) noexcept : budget_(std::exchange(other.budget_, nullptr)), bytes_(other.bytes_) {}
    Share& operator=(Share&&) = delete;
    ~Share() {
      if (budget_ != nullptr) budget_->giveBack(bytes_);
    }

   private:
    friend class ProxyBodyBudget;
    Share(ProxyBodyBudget& budget, std::int64_t bytes) : budget_(&budget), bytes_(bytes) {}
    ProxyBodyBudget* budget_;
    std::int64_t bytes_;
  };

  /// nullopt when so many bytes (0 or more) are not free.
  std::optional<Share> reserve(std::int64_t bytes) {
    const base::Lock lock(lock_);
    if (bytes > limit_ - used_) return std::nullopt;
    used_ += bytes;
    return Share(*this, bytes);
  }
  std::int64_t used() const {
    const base::Lock lock(lock_);
    return used_;
  }

 private:
  void giveBack(std::int64_t bytes) {
    const base::Lock lock(lock_);
    used_ -= bytes;
  }

  // Constant after construction.
  const std::int64_t limit_;
  // Guarded. A leaf.
  mutable base::Mutex lock_;
  std::int64_t used_ GUARDED_BY(lock_) = 0;
};

}  // namespace sorvane::proxy
