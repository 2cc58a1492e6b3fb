#include "proxy/curl_transport.h"

#include <curl/curl.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "proxy/curl_line.h"

namespace sorvane::proxy {
namespace {

std::shared_ptr<const CurlShared> sharedFor(TransportSettings settings) {
  curl_global_init(CURL_GLOBAL_DEFAULT);  // counts; safe from any thread since 7.84
  return std::make_shared<const CurlShared>(std::move(settings));
}

}  // namespace

CurlTransport::CurlTransport(const base::Clock& clock, TransportSettings settings)
    : clock_(clock), shared_(sharedFor(std::move(settings))), timer_(clock, [this] { closeOld(); }) {}

CurlTransport::~CurlTransport() {
  timer_.stop();
}

void CurlTransport::configure(TransportSettings settings) {
  std::shared_ptr<const CurlShared> shared = sharedFor(std::move(settings));
  Pools dropped;
  const base::Lock lock(mutex_);
  shared_.swap(shared);
  pools_.swap(dropped);
}

std::size_t CurlTransport::idle() const {
  const base::Lock lock(mutex_);
  std::size_t count = 0;
  for (const auto& [provider, pool] : pools_) count += pool.size();
  return count;
}

std::unique_ptr<CurlLine> CurlTransport::take(ProxyProvider provider) {
  std::shared_ptr<const CurlShared> shared;
  std::deque<Idle> old;  // closed without the lock
  {
    const base::Lock lock(mutex_);
    std::deque<Idle>& pool = pools_[provider];
    // The timer counts only while the computer is awake.
    if (!pool.empty() && pool.back().since <= clock_.instant() - kIdleTime) pool.swap(old);
    if (!pool.empty()) {
      std::unique_ptr<CurlLine> line = std::move(pool.back().line);
      pool.pop_back();
      return line;
    }
    shared = shared_;
  }
  return std::make_unique<CurlLine>(std::move(shared));
}

void CurlTransport::giveBack(ProxyProvider provider, std::unique_ptr<CurlLine> line) {
  std::optional<Idle> dropped;
  std::optional<base::Instant> deadline;
  {
    const base::Lock lock(mutex_);
    if (line->shared() != shared_.get()) return;
    std::deque<Idle>& pool = pools_[provider];
    pool.push_back({std::move(line), clock_.instant()});
    if (pool.size() > kMostIdle) {
      dropped = std::move(pool.front());
      pool.pop_front();
    }
    if (!armed_) deadline = pool.back().since + kIdleTime;
    armed_ = true;
  }
  if (deadline) timer_.arm(deadline);
}

void CurlTransport::closeOld() {
  std::vector<Idle> old;
  std::optional<base::Instant> next;
  {
    const base::Lock lock(mutex_);
    const base::Instant before = clock_.instant() - kIdleTime;
    for (auto& [provider, pool] : pools_) {
      while (!pool.empty() && pool.front().since <= before) {
        old.push_back(std::move(pool.front()));
        pool.pop_front();
      }
      if (!pool.empty()) next = std::min(next.value_or(pool.front().since), pool.front().since);
    }
    armed_ = next.has_value();
  }
  if (next) timer_.arm(*next + kIdleTime);
}

UpstreamResult CurlTransport::send(const UpstreamRequest& request, UpstreamReceiver& receiver,
                                   const UpstreamWatch& watch) {
  std::unique_ptr<CurlLine> line = take(request.provider);
  const UpstreamResult result = line->run(request, receiver, watch);
  if (line->reusable()) giveBack(request.provider, std::move(line));
  return result;
}

}  // namespace sorvane::proxy
