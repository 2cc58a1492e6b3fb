// kqueue(2) over this system's epoll and descriptors of processes: the filters and notes that src/platform/macos uses,
// with real processes.

#include <sys/epoll.h>
#include <sys/event.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "apple/fake/processes.h"
#include "base/descriptor.h"

namespace {

using Place = std::pair<int, uintptr_t>;  // filter and identifier, by which a queue knows an event

struct Note {
  struct kevent wanted {};
  sorvane::base::Descriptor own;
  std::set<pid_t> children;
};
struct Queue {
  std::map<std::uint64_t, Place> places;
  std::map<Place, std::pair<std::uint64_t, Note>> notes;
};

std::mutex mutex;
std::map<int, Queue> queues;
std::uint64_t lastId = 0;
pid_t owner = 0;

int failed(int error) {
  errno = error;
  return -1;
}

/// By way of copies: the fields of the record need not be aligned.
Place placeOf(const struct kevent& event) {
  const int filter = event.filter;
  const uintptr_t what = event.ident;
  return {filter, what};
}

int openFor(const struct kevent& wanted, Note& note) {
  if (wanted.filter == EVFILT_READ || wanted.filter == EVFILT_WRITE) return static_cast<int>(wanted.ident);
  if (wanted.filter == EVFILT_USER) {
    note.own.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return note.own.get();
  }
  const auto process = static_cast<pid_t>(wanted.ident);
  // Nor does macOS watch one that has ended and is not buried.
  if (fake::isZombie(process)) return failed(ESRCH);
  note.own.reset(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
  return note.own.get();
}

int add(int fd, Queue& queue, const struct kevent& wanted) {
  const Place place = placeOf(wanted);
  if (const auto found = queue.notes.find(place); found != queue.notes.end()) {
    found->second.second.wanted = wanted;
    return 0;
  }
  Note note;
  note.wanted = wanted;
  const int watched = openFor(wanted, note);
  if (watched < 0) return -1;
  if ((wanted.fflags & NOTE_FORK) != 0) note.children = fake::childrenOf(static_cast<pid_t>(wanted.ident));
  const std::uint64_t id = ++lastId;
  epoll_event event{};
  // A change of either is told once more, as the filter for writing is used.
  event.events = wanted.filter == EVFILT_WRITE ? EPOLLOUT | EPOLLET : EPOLLIN;
  event.data.u64 = id;
  if (::epoll_ctl(fd, EPOLL_CTL_ADD, watched, &event) != 0) return -1;
  queue.places[id] = place;
  queue.notes.emplace(place, std::pair{id, std::move(note)});
  return 0;
}

void erase(Queue& queue, const Place& place) {
  const auto found = queue.notes.find(place);
  queue.places.erase(found->second.first);
  queue.notes.erase(found);
}

int change(int fd, const struct kevent& wanted) {
  const std::lock_guard lock(mutex);
  Queue& queue = queues.at(fd);
  if ((wanted.flags & EV_ADD) != 0) return add(fd, queue, wanted);
  const auto found = queue.notes.find(placeOf(wanted));
  if (found == queue.notes.end()) return failed(ENOENT);
  if ((wanted.flags & EV_DELETE) != 0) {
    erase(queue, found->first);
  } else if ((wanted.fflags & NOTE_TRIGGER) != 0) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(found->second.second.own.get(), &one, sizeof one);
  }
  return 0;
}

/// As waitpid gives it, without burying a child of this process.
int statusOf(pid_t process) {
  siginfo_t info{};
  ::waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT);
  return info.si_code == CLD_EXITED ? W_EXITCODE(info.si_status, 0) : W_EXITCODE(0, info.si_status);
}

bool take(int fd, const epoll_event& ready, struct kevent& told) {
  const std::lock_guard lock(mutex);
  Queue& queue = queues.at(fd);
  const std::uint64_t id = ready.data.u64;
  const auto place = queue.places.find(id);
  if (place == queue.places.end()) return false;
  Note& note = queue.notes.at(place->second).second;
  told = note.wanted;
  if (told.filter == EVFILT_USER) {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto got = ::read(note.own.get(), &count, sizeof count);
  } else if (told.filter == EVFILT_WRITE) {
    if ((ready.events & (EPOLLHUP | EPOLLERR)) != 0) told.flags |= EV_EOF;
  } else if (told.filter == EVFILT_PROC) {
    if ((told.fflags & NOTE_EXITSTATUS) != 0) told.data = statusOf(static_cast<pid_t>(told.ident));
    told.fflags = NOTE_EXIT;
    erase(queue, Place(place->second));
  }
  return true;
}

/// One process that has other children than before, if there is one.
bool takeFork(int fd, struct kevent& told) {
  const std::lock_guard lock(mutex);
  for (auto& [place, entry] : queues.at(fd).notes) {
    Note& note = entry.second;
    if (place.first != EVFILT_PROC || (note.wanted.fflags & NOTE_FORK) == 0) continue;
    auto children = fake::childrenOf(static_cast<pid_t>(place.second));
    const bool isNew = std::ranges::any_of(children, [&](pid_t child) { return !note.children.contains(child); });
    note.children = std::move(children);
    if (!isNew) continue;
    told = note.wanted;
    told.fflags = NOTE_FORK;
    return true;
  }
  return false;
}

bool asksForForks(int fd) {
  const std::lock_guard lock(mutex);
  return std::ranges::any_of(queues.at(fd).notes,
                             [](const auto& e) { return (e.second.second.wanted.fflags & NOTE_FORK) != 0; });
}

}  // namespace

int kqueue() {
  const int fd = ::epoll_create1(EPOLL_CLOEXEC);
  const std::lock_guard lock(mutex);
  // A child inherits none, and the numbers of their descriptors may be others' by now.
  if (const pid_t last = std::exchange(owner, ::getpid()); last != 0 && last != owner) {
    new std::map<int, Queue>(std::exchange(queues, {}));
  }
  queues[fd] = Queue();
  return fd;
}

int kevent(int fd, const struct kevent* changes, int changeCount, struct kevent* events, int eventCount,
           const struct timespec* limit) {
  for (int i = 0; i < changeCount; ++i) {
    if (change(fd, changes[i]) != 0) return -1;
  }
  if (eventCount == 0) return 0;
  using Clock = std::chrono::steady_clock;
  constexpr int kLookMilliseconds = 1;
  const auto end = Clock::now() +
                   (limit == nullptr ? std::chrono::hours(1)
                                     : std::chrono::seconds(limit->tv_sec) + std::chrono::nanoseconds(limit->tv_nsec));
  for (;;) {
    if (takeFork(fd, events[0])) return 1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    epoll_event ready{};
    const int wait = static_cast<int>(std::clamp<std::int64_t>(left, 0, 60'000));
    const int count = ::epoll_wait(fd, &ready, 1, asksForForks(fd) ? std::min(wait, kLookMilliseconds) : wait);
    if (count < 0) return -1;
    if (count == 1 && take(fd, ready, events[0])) return 1;
    if (left <= 0) return 0;
  }
}
