#include "proxy/curl_trust.h"

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>

namespace sorvane::proxy {
namespace {

struct FreeBio {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct FreeCertificate {
  void operator()(X509* certificate) const { X509_free(certificate); }
};

/// Whether the folder holds links by hash, "0123abcd.0", as OpenSSL looks for them.
bool isHashed(const char* folder) {
  std::error_code failed;
  const std::filesystem::directory_iterator entries(folder, failed);
  if (failed) return false;
  return std::any_of(begin(entries), end(entries), [](const auto& entry) {
    const std::string name = entry.path().filename();
    return name.size() == 10 && name.ends_with(".0") && name.find_first_not_of("0123456789abcdef") == name.size() - 2;
  });
}

void addSystem(X509_STORE* store) {
  const char* const folder = X509_get_default_cert_dir();
  if (isHashed(folder) && X509_STORE_load_path(store, folder) == 1) return;
  if (X509_STORE_load_file(store, X509_get_default_cert_file()) == 1) return;
  const curl_version_info_data* const known = curl_version_info(CURLVERSION_NOW);
  if (known->cainfo != nullptr) X509_STORE_load_file(store, known->cainfo);
}

/// The file of authorities that libcurl reads when it is told nothing.
std::string systemText() {
  const char* const file = curl_version_info(CURLVERSION_NOW)->cainfo;
  if (file == nullptr) return {};
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

bool addPem(X509_STORE* store, const std::string& pem) {
  const std::unique_ptr<BIO, FreeBio> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  bool any = false;
  while (bio) {
    const std::unique_ptr<X509, FreeCertificate> certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!certificate) break;
    any = X509_STORE_add_cert(store, certificate.get()) == 1 || any;
  }
  return any;
}

}  // namespace

AuthorityError::AuthorityError()
    : Error(
          "The extra certificate authority holds no certificate that can be read. Nothing was changed. Give it as a "
          "PEM text that begins with \"-----BEGIN CERTIFICATE-----\".") {}

void CurlTrust::Free::operator()(x509_store_st* store) const {
  X509_STORE_free(store);
}

CurlTls linkedTls() {
  const char* const version = curl_version_info(CURLVERSION_NOW)->ssl_version;
  return version != nullptr && std::string_view(version).starts_with("OpenSSL/") ? CurlTls::ours : CurlTls::itsOwn;
}

CurlTrust::CurlTrust(const std::optional<std::string>& authorityPem, CurlTls tls)
    : tls_(tls), store_(X509_STORE_new()) {
  if (!store_) throw std::bad_alloc();
  if (tls == CurlTls::ours) {
    addSystem(store_.get());
  } else if (authorityPem) {
    text_ = systemText() + "\n" + *authorityPem;
  }
  const bool added = !authorityPem || addPem(store_.get(), *authorityPem);
  ERR_clear_error();
  if (!added) throw AuthorityError();
}

}  // namespace sorvane::proxy
