#include "platform/linux/process_watch.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>

#include <array>

namespace sorvane::platform {
namespace {

/// The token of the descriptor that wakes the thread.
constexpr std::uint64_t kWake = 0;

base::Descriptor openProcess(pid_t process) {
  return base::Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

bool add(int poll, int descriptor, std::uint64_t token) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = token;
  return ::epoll_ctl(poll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

}  // namespace

PidfdWatch::PidfdWatch() : poll_(::epoll_create1(EPOLL_CLOEXEC)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!poll_ || !wake_ || !add(poll_.get(), wake_.get(), kWake)) poll_.reset();
}

PidfdWatch::~PidfdWatch() {
  std::thread thread;
  {
    const base::Lock lock(mutex_);
    stopping_ = true;
    thread = std::move(thread_);
  }
  wake();
  if (thread.joinable()) thread.join();
}

void PidfdWatch::wake() const {
  const std::uint64_t one = 1;
  // A counter that is full wakes just as well.
  [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

PidfdWatch::Watched PidfdWatch::watch(pid_t process, std::function<void()> ended) {
  base::Descriptor descriptor = openProcess(process);
  if (!descriptor) return {errno == ESRCH ? State::gone : State::impossible, 0};
  const base::Lock lock(mutex_);
  if (!poll_ || stopping_) return {State::impossible, 0};
  const std::uint64_t token = ++lastToken_;
  if (!add(poll_.get(), descriptor.get(), token)) return {State::impossible, 0};
  entries_.emplace(token, Entry{std::move(descriptor), std::move(ended)});
  if (!thread_.joinable()) {
    thread_ = std::thread([this] { run(); });
    teller_ = thread_.get_id();
  }
  return {State::watching, token};
}

void PidfdWatch::forget(std::uint64_t token) {
  base::Lock lock(mutex_);
  // Closing the descriptor takes it out of the poll.
  entries_.erase(token);
  if (teller_ == std::this_thread::get_id()) return;
  while (telling_ == token && token != 0) told_.wait(lock.mutex());
}

void PidfdWatch::run() {
  std::array<epoll_event, 16> events;
  while (true) {
    const int count = ::epoll_wait(poll_.get(), events.data(), static_cast<int>(events.size()), -1);
    if (count < 0 && errno != EINTR) return;
    for (int i = 0; i < count; ++i) {
      const std::uint64_t token = events[static_cast<std::size_t>(i)].data.u64;
      if (token == kWake) return;
      tell(token);
    }
  }
}

void PidfdWatch::tell(std::uint64_t token) {
  std::function<void()> ended;
  {
    const base::Lock lock(mutex_);
    const auto found = entries_.find(token);
    if (stopping_ || found == entries_.end()) return;
    ended = std::move(found->second.ended);
    entries_.erase(found);
    telling_ = token;
  }
  ended();
  ended = {};
  const base::Lock lock(mutex_);
  telling_ = 0;
  told_.notify_all();
}

}  // namespace sorvane::platform
