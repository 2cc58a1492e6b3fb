#include "proxy/curl_shared.h"

#include <curl/curl.h>

#include <array>
#include <mutex>
#include <new>
#include <utility>

namespace sorvane::proxy {

/// One lock for each kind of shared data; curl locks and unlocks them in two calls.
struct CurlShared::Locks {
  std::array<std::mutex, CURL_LOCK_DATA_LAST> of;

  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<Locks*>(self)->of[static_cast<std::size_t>(data)].lock();
  }
  static void unlock(CURL*, curl_lock_data data, void* self) {
    static_cast<Locks*>(self)->of[static_cast<std::size_t>(data)].unlock();
  }
};

void CurlShared::FreeLocks::operator()(Locks* locks) const {
  delete locks;
}
void CurlShared::Free::operator()(void* share) const {
  curl_share_cleanup(share);
}

CurlShared::CurlShared(TransportSettings settings)
    : settings_(std::move(settings)),
      trust_(settings_.authorityPem, settings_.tls),
      locks_(new Locks),
      handle_(curl_share_init()) {
  if (!handle_) throw std::bad_alloc();
  CURLSH* const share = handle_.get();
  curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &Locks::lock);
  curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &Locks::unlock);
  curl_share_setopt(share, CURLSHOPT_USERDATA, locks_.get());
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

}  // namespace sorvane::proxy
