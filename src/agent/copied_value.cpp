#include "agent/copied_value.h"

#include <utility>

namespace sorvane::agent {

bool CopiedValue::copy(const base::SecretText& value) {
  const crypto::Sha256Digest digest = crypto::sha256(value.bytes());
  std::optional<crypto::Sha256Digest> before;
  {
    // Known before it is there, so that nobody takes it for somebody else's.
    const base::Lock lock(mutex_);
    before = std::exchange(digest_, digest);
    clearAt_ = std::chrono::steady_clock::now() + keep_;
  }
  const bool written = clipboard_.write(value);
  const base::Lock lock(mutex_);
  if (!written) {
    digest_ = before;
    return false;
  }
  clearAt_ = std::chrono::steady_clock::now() + keep_;
  if (!thread_.joinable()) thread_ = std::jthread([this](std::stop_token stop) { watch(std::move(stop)); });
  changed_.notify_all();
  return true;
}

bool CopiedValue::isOurs(const base::SecretText& text) {
  const crypto::Sha256Digest digest = crypto::sha256(text.bytes());
  const base::Lock lock(mutex_);
  return digest_ == digest;
}

CopiedValue::~CopiedValue() {
  std::jthread thread;
  {
    const base::Lock lock(mutex_);
    thread = std::move(thread_);
  }
  thread.request_stop();
  if (thread.joinable()) thread.join();
  const base::Lock lock(mutex_);
  if (digest_) clearOurs(*digest_);
}

void CopiedValue::clearOurs(const crypto::Sha256Digest& digest) {
  const StillThere ours = clipboard_.lastWrite();
  if (ours == StillThere::no) return;
  if (ours == StillThere::yes) {
    clipboard_.write(base::SecretText());
    return;
  }
  const auto present = clipboard_.read();
  if (present && crypto::sha256(present->bytes()) == digest) clipboard_.write(base::SecretText());
}

void CopiedValue::watch(std::stop_token stop) {
  for (;;) {
    crypto::Sha256Digest due{};
    {
      base::Lock lock(mutex_);
      while (!stop.stop_requested() && !(digest_ && std::chrono::steady_clock::now() >= clearAt_)) {
        const auto seen = clearAt_;
        const auto until = digest_ ? clearAt_ : std::chrono::steady_clock::time_point::max();
        changed_.wait_until(lock.mutex(), stop, until, [&]() REQUIRES(mutex_) { return clearAt_ != seen; });
      }
      if (stop.stop_requested()) return;
      due = *digest_;
      digest_.reset();
    }
    clearOurs(due);
  }
}

}  // namespace sorvane::agent
