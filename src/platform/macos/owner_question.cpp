#include "platform/macos/owner_question.h"

#include <utility>

namespace sorvane::platform {

void OwnerQuestion::answer(unlock::OwnerPresence::Answer answer) {
  unlock::OwnerPresence::Reply reply;
  {
    const base::Lock lock(mutex_);
    reply = std::exchange(reply_, nullptr);
    if (!reply) return;
    if (isWithdrawn_) answer = unlock::OwnerPresence::Cancelled{};
    replying_ = std::this_thread::get_id();
  }
  reply(std::move(answer));
  // What it holds goes before `end` comes back.
  reply = nullptr;
  const base::Lock lock(mutex_);
  replying_ = {};
  replied_.notify_all();
}

void OwnerQuestion::withdraw() {
  const base::Lock lock(mutex_);
  isWithdrawn_ = true;
}

void OwnerQuestion::end() {
  answer(unlock::OwnerPresence::Cancelled{});
  base::Lock lock(mutex_);
  replied_.wait(lock.mutex(), [this]() REQUIRES(mutex_) {
    return replying_ == std::thread::id() || replying_ == std::this_thread::get_id();
  });
}

}  // namespace sorvane::platform
