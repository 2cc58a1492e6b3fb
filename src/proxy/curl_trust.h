#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/error.h"

struct x509_store_st;

namespace sorvane::proxy {

/// The owner's extra authority is not one that can be read.
class AuthorityError : public base::Error {
 public:
  AuthorityError();
};

/// Whether libcurl stands on this program's own OpenSSL, which takes what we hand it, or on a TLS library that it
/// brings along, as a system's libcurl may; nothing of OpenSSL may be handed to that one.
enum class CurlTls { ours, itsOwn };
/// As libcurl says at run-time.
CurlTls linkedTls();

/// CurlTrust is the set of certificate authorities that connections to providers are verified against: the system's
/// and the owner's own. It is built once and shared by every connection. Where the system keeps its authorities in a
/// folder by hash, each is read when it is first needed, which saves the time and the memory of reading all.
class CurlTrust {
 public:
  /// `authorityPem`: one or more certificates trusted beside the system's. Throws AuthorityError when it holds none.
  explicit CurlTrust(const std::optional<std::string>& authorityPem, CurlTls tls = linkedTls());
  CurlTls tls() const { return tls_; }
  /// For `ours`.
  x509_store_st* store() const { return store_.get(); }
  /// For `itsOwn`: the system's authorities and the owner's as one PEM text; empty where libcurl's own usual ones will
  /// do.
  const std::string& text() const { return text_; }

 private:
  struct Free {
    void operator()(x509_store_st* store) const;
  };
  const CurlTls tls_;
  std::unique_ptr<x509_store_st, Free> store_;
  std::string text_;
};

}  // namespace sorvane::proxy
