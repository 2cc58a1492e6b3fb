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

/// CurlTrust is the set of certificate authorities that connections to providers are verified against: the system's
/// and the owner's own. It is built once and shared by every connection. Where the system keeps its authorities in a
/// folder by hash, each is read when it is first needed, which saves the time and the memory of reading all.
class CurlTrust {
 public:
  /// `authorityPem`: one or more certificates trusted beside the system's. Throws AuthorityError when it holds none.
  explicit CurlTrust(const std::optional<std::string>& authorityPem);
  x509_store_st* store() const { return store_.get(); }

 private:
  struct Free {
    void operator()(x509_store_st* store) const;
  };
  std::unique_ptr<x509_store_st, Free> store_;
};

}  // namespace sorvane::proxy
