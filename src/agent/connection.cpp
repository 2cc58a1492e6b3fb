#include "agent/connection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <utility>
#include <vector>

#include "base/hangup.h"

namespace sorvane::agent {

void setTimeouts(int socket, int seconds) {
  timeval limit{};
  limit.tv_sec = seconds;
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

ReceivedRequest receiveRequest(int socket) {
  ReceivedRequest request;
  // Most requests are short: the first read goes to the buffer that is kept.
  std::array<char, 8192> piece;
  for (;;) {
    const ssize_t got = ::recv(socket, piece.data(), piece.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    request.bytes.append({piece.data(), static_cast<std::size_t>(got)});
    base::wipe(piece.data(), static_cast<std::size_t>(got));
    if (request.bytes.size() > kMaxRequestBytes) {
      request.tooLarge = true;
      break;
    }
  }
  return request;
}

void sendAll(int socket, std::string_view text) {
  while (!text.empty()) {
    const auto before = std::chrono::steady_clock::now();
    const ssize_t sent = ::send(socket, text.data(), text.size(), base::quietSend());
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(sent));
    // A write that came back short after the whole time-out means that the peer does not read.
    const auto waited = std::chrono::steady_clock::now() - before;
    if (!text.empty() && waited >= std::chrono::milliseconds(kSocketTimeoutSeconds * 1000 - 100)) return;
  }
}

HangupWatch::~HangupWatch() {
  std::thread thread;
  {
    const base::Lock lock(mutex_);
    ending_ = true;
    thread = std::move(thread_);
    wake();
  }
  if (thread.joinable()) thread.join();
}

HangupWatch::Id HangupWatch::add(int socket, std::stop_source stop) {
  const base::Lock lock(mutex_);
  if (!wake_) {
    wake_ = base::openWakePipe();
    if (wake_) thread_ = std::thread([this] { run(); });
  }
  const Id id = next_++;
  entries_.emplace(id, Entry{socket, std::move(stop)});
  wake();
  return id;
}

void HangupWatch::remove(Id id) {
  const base::Lock lock(mutex_);
  entries_.erase(id);
}

void HangupWatch::withdrawAll() {
  std::vector<std::stop_source> stops;
  {
    const base::Lock lock(mutex_);
    for (const auto& [id, entry] : entries_) stops.push_back(entry.stop);
  }
  for (std::stop_source& stop : stops) stop.request_stop();
}

void HangupWatch::wake() {
  if (wake_) base::wake(*wake_);
}

void HangupWatch::emptied() {
  const base::Lock lock(mutex_);
  base::drain(*wake_);
}

void HangupWatch::run() {
  std::vector<int> sockets;
  std::vector<Id> ids;
  for (;;) {
    sockets.clear();
    ids.clear();
    int woken = -1;
    {
      const base::Lock lock(mutex_);
      if (ending_) return;
      woken = wake_->read.get();
      for (const auto& [id, entry] : entries_) {
        if (entry.socket < 0 || entry.stop.stop_requested()) continue;
        // Clients close their sending side after the request, so only a hang-up of both sides counts.
        sockets.push_back(entry.socket);
        ids.push_back(id);
      }
    }
    const std::vector<std::size_t> gone = base::waitForHangup(sockets, woken);
    emptied();
    for (const std::size_t place : gone) {
      std::optional<std::stop_source> stop;
      {
        const base::Lock lock(mutex_);
        // Not there any more: the request was answered meanwhile and its descriptor may be another's by now.
        if (const auto found = entries_.find(ids[place]); found != entries_.end()) stop = found->second.stop;
      }
      if (stop) stop->request_stop();
    }
  }
}

std::optional<Connections::Id> Connections::add(int socket) {
  const base::Lock lock(mutex_);
  if (entries_.size() - dropped_ >= kMost) {
    auto oldest = entries_.begin();
    while (oldest != entries_.end() && (!oldest->second.silent || oldest->second.dropped)) ++oldest;
    if (oldest == entries_.end()) return std::nullopt;
    oldest->second.dropped = true;
    ++dropped_;
    ::shutdown(oldest->second.socket, SHUT_RDWR);
  }
  const Id id = next_++;
  entries_.emplace(id, Entry{.socket = socket});
  return id;
}

void Connections::heard(Id id) {
  const base::Lock lock(mutex_);
  if (const auto found = entries_.find(id); found != entries_.end()) found->second.silent = false;
}

void Connections::remove(Id id) {
  const base::Lock lock(mutex_);
  if (const auto found = entries_.find(id); found != entries_.end()) {
    if (found->second.dropped) --dropped_;
    entries_.erase(found);
  }
  left_.notify_all();
}

void Connections::dropSilent() {
  const base::Lock lock(mutex_);
  for (auto& [id, entry] : entries_) {
    if (entry.silent) ::shutdown(entry.socket, SHUT_RD);
  }
}

void Connections::waitUntilNone() {
  base::Lock lock(mutex_);
  while (!entries_.empty()) left_.wait(lock.mutex());
}

}  // namespace sorvane::agent
