#include "platform/macos/process_watch.h"

#include <sys/event.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace sorvane::platform {
namespace {

/// The one event of EVFILT_USER, which ends the thread.
constexpr uintptr_t kStop = 0;

struct Change {
  uintptr_t what;
  int filter;
  int flags;
  unsigned notes;
  std::uint64_t token = 0;
};

bool apply(int queue, const Change& wanted) {
  struct kevent change {};
  change.ident = wanted.what;
  change.filter = static_cast<int16_t>(wanted.filter);
  change.flags = static_cast<uint16_t>(wanted.flags);
  change.fflags = wanted.notes;
  change.udata = reinterpret_cast<void*>(static_cast<uintptr_t>(wanted.token));
  return ::kevent(queue, &change, 1, nullptr, 0, nullptr) == 0;
}

}  // namespace

KqueueWatch::KqueueWatch() : queue_(::kqueue()) {
  if (queue_ && !apply(queue_.get(), {kStop, EVFILT_USER, EV_ADD | EV_CLEAR, 0})) queue_.reset();
}

KqueueWatch::~KqueueWatch() {
  std::thread thread;
  {
    const base::Lock lock(mutex_);
    stopping_ = true;
    thread = std::move(thread_);
  }
  if (queue_) apply(queue_.get(), {kStop, EVFILT_USER, 0, NOTE_TRIGGER});
  if (thread.joinable()) thread.join();
}

KqueueWatch::Watched KqueueWatch::watch(pid_t process, std::function<void()> ended) {
  const base::Lock lock(mutex_);
  if (!queue_ || stopping_ || process <= 0) return {State::impossible, 0};
  const std::uint64_t token = ++lastToken_;
  // A process has one place in the queue: it holds the last of its tokens, and its end concerns all up to that. A
  // number that was reused while the end of the old process was on its way keeps the higher tokens for itself.
  if (!apply(queue_.get(), {static_cast<uintptr_t>(process), EVFILT_PROC, EV_ADD | EV_ONESHOT, NOTE_EXIT, token})) {
    return {errno == ESRCH ? State::gone : State::impossible, 0};
  }
  entries_.emplace(token, Entry{process, std::move(ended)});
  if (!thread_.joinable()) {
    thread_ = std::thread([this] { run(); });
    teller_ = thread_.get_id();
  }
  return {State::watching, token};
}

void KqueueWatch::forget(std::uint64_t token) {
  base::Lock lock(mutex_);
  if (const auto found = entries_.find(token); found != entries_.end()) {
    const pid_t process = found->second.process;
    entries_.erase(found);
    const bool isLast = std::ranges::none_of(entries_, [&](const auto& e) { return e.second.process == process; });
    if (isLast) apply(queue_.get(), {static_cast<uintptr_t>(process), EVFILT_PROC, EV_DELETE, 0});
  }
  if (teller_ == std::this_thread::get_id()) return;
  while (telling_ == token && token != 0) told_.wait(lock.mutex());
}

void KqueueWatch::run() {
  std::array<struct kevent, 16> events{};
  while (true) {
    const int count = ::kevent(queue_.get(), nullptr, 0, events.data(), static_cast<int>(events.size()), nullptr);
    if (count < 0 && errno != EINTR) return;
    for (int i = 0; i < count; ++i) {
      const struct kevent& event = events[static_cast<std::size_t>(i)];
      if (event.filter == EVFILT_USER) return;
      const auto lastToken = static_cast<std::uint64_t>(reinterpret_cast<uintptr_t>(event.udata));
      while (tell(static_cast<pid_t>(event.ident), lastToken)) continue;
    }
  }
}

bool KqueueWatch::tell(pid_t process, std::uint64_t lastToken) {
  std::function<void()> ended;
  {
    const base::Lock lock(mutex_);
    const auto found = std::ranges::find_if(
        entries_, [&](const auto& e) { return e.second.process == process && e.first <= lastToken; });
    if (stopping_ || found == entries_.end()) return false;
    ended = std::move(found->second.ended);
    telling_ = found->first;
    entries_.erase(found);
  }
  ended();
  ended = {};
  const base::Lock lock(mutex_);
  telling_ = 0;
  told_.notify_all();
  return true;
}

}  // namespace sorvane::platform
