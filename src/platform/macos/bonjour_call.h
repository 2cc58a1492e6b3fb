#pragma once

#include <dns_sd.h>

namespace sorvane::platform {

inline constexpr char kBonjourType[] = "_sorvane._tcp";

/// BonjourCall owns one thing that the Bonjour daemon was asked for, and takes it back at its end. What the daemon
/// answers comes to the reply function, within `process` and on its thread. One thread at a time.
class BonjourCall {
 public:
  BonjourCall() = default;
  BonjourCall(const BonjourCall&) = delete;
  BonjourCall& operator=(const BonjourCall&) = delete;
  ~BonjourCall() {
    if (reference_ != nullptr) ::DNSServiceRefDeallocate(reference_);
  }

  /// Asks: `ask` puts the reference where it is told to. Once only.
  template <typename Ask>
  DNSServiceErrorType begin(const Ask& ask) {
    DNSServiceRef given = nullptr;
    const DNSServiceErrorType error = ask(&given);
    // What a call that failed leaves there is nobody's.
    if (error != kDNSServiceErr_NoError) return error;
    reference_ = given;
    descriptor_ = ::DNSServiceRefSockFD(given);
    return descriptor_ < 0 ? DNSServiceErrorType{kDNSServiceErr_Unknown} : error;
  }

  /// Can be read from when the daemon has answered.
  int descriptor() const { return descriptor_; }

  /// Takes in what was answered; waits for it when there is nothing to be read. After an error nothing more comes: the
  /// daemon is gone.
  DNSServiceErrorType process() { return ::DNSServiceProcessResult(reference_); }

 private:
  DNSServiceRef reference_ = nullptr;
  int descriptor_ = -1;
};

}  // namespace sorvane::platform
