#include "support/tls_stub.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <sys/socket.h>

#include <cstring>
#include <stdexcept>

#include "base/open_descriptors.h"

namespace sorvane::test {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

void require(bool held, const char* what) {
  if (!held) throw std::runtime_error(std::string("the TLS stub failed: ") + what);
}

Key newKey() {
  Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  require(key != nullptr, "key");
  return key;
}

void extend(X509* certificate, X509* issuer, int id, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, id, value);
  require(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, "extension");
  X509_EXTENSION_free(extension);
}

/// Signed by `issuerKey`; its own issuer where `issuer` is nullptr.
Certificate newCertificate(const char* name, const Key& key, X509* issuer, const Key& issuerKey) {
  Certificate certificate(X509_new(), &X509_free);
  X509_set_version(certificate.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), issuer == nullptr ? 1 : 2);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 86'400);
  X509_set_pubkey(certificate.get(), key.get());
  X509_NAME* const subject = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), issuer == nullptr ? subject : X509_get_subject_name(issuer));
  if (issuer == nullptr) {
    extend(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
    extend(certificate.get(), certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    extend(certificate.get(), issuer, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
  }
  require(X509_sign(certificate.get(), issuerKey.get(), EVP_sha256()) > 0, "signature");
  return certificate;
}

std::string pemOf(X509* certificate) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new(BIO_s_mem()), &BIO_free);
  PEM_write_bio_X509(memory.get(), certificate);
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

int chooseHttp1(SSL*, const unsigned char** out, unsigned char* size, const unsigned char* in, unsigned inSize, void*) {
  static constexpr unsigned char name[] = "\x08http/1.1";
  return SSL_select_next_proto(const_cast<unsigned char**>(out), size, name, 9, in, inSize) == OPENSSL_NPN_NEGOTIATED
             ? SSL_TLSEXT_ERR_OK
             : SSL_TLSEXT_ERR_NOACK;
}

int chooseHttp2(SSL*, const unsigned char** out, unsigned char* size, const unsigned char* in, unsigned inSize, void*) {
  static constexpr unsigned char name[] = "\x02h2";
  return SSL_select_next_proto(const_cast<unsigned char**>(out), size, name, 3, in, inSize) == OPENSSL_NPN_NEGOTIATED
             ? SSL_TLSEXT_ERR_OK
             : SSL_TLSEXT_ERR_ALERT_FATAL;
}

StubRequest requestOf(std::string_view head) {
  StubRequest request;
  const auto take = [&head] {
    const std::size_t end = head.find("\r\n");
    const std::string_view line = head.substr(0, end);
    head.remove_prefix(end + 2);
    return std::string(line);
  };
  request.line = take();
  while (!head.empty()) {
    std::string line = take();
    const std::size_t colon = line.find(": ");
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    request.headers.emplace(std::move(name), line.substr(colon + 2));
  }
  return request;
}

}  // namespace

std::string TlsStub::Connection::read() {
  std::string bytes(65'536, '\0');
  const int got = SSL_read(tls_, bytes.data(), static_cast<int>(bytes.size()));
  bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  return bytes;
}

std::optional<StubRequest> TlsStub::Connection::nextHead() {
  std::size_t end = 0;
  while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
    const std::string more = read();
    if (more.empty()) return std::nullopt;
    buffer_ += more;
  }
  StubRequest request = requestOf(std::string_view(buffer_).substr(0, end + 2));
  buffer_.erase(0, end + 4);
  ++stub_->requests_;
  return request;
}

std::optional<StubRequest> TlsStub::Connection::next() {
  std::optional<StubRequest> request = nextHead();
  if (!request) return request;
  const auto length = request->headers.find("content-length");
  const std::size_t size = length == request->headers.end() ? 0 : std::stoul(length->second);
  while (buffer_.size() < size) {
    const std::string more = read();
    if (more.empty()) return std::nullopt;
    buffer_ += more;
  }
  request->body = buffer_.substr(0, size);
  buffer_.erase(0, size);
  return request;
}

bool TlsStub::Connection::send(std::string_view bytes) {
  return bytes.empty() || SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size())) > 0;
}

void TlsStub::Connection::drop() {
  ::shutdown(socket_.get(), SHUT_WR);
}

void TlsStub::Connection::reset() {
  const linger none{1, 0};
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  SSL_set_quiet_shutdown(tls_, 1);
}

void TlsStub::Connection::awaitEnd() {
  while (!read().empty()) {
  }
}

bool TlsStub::Connection::http2() const {
  const unsigned char* name = nullptr;
  unsigned size = 0;
  SSL_get0_alpn_selected(tls_, &name, &size);
  return size == 2 && std::memcmp(name, "h2", 2) == 0;
}

TlsStub::TlsStub(Script script, Protocol protocol)
    : script_(std::move(script)), context_(SSL_CTX_new(TLS_server_method())) {
  ::signal(SIGPIPE, SIG_IGN);
  const Key authorityKey = newKey(), key = newKey();
  const Certificate authority = newCertificate("stub authority", authorityKey, nullptr, authorityKey);
  const Certificate own = newCertificate("stub", key, authority.get(), authorityKey);
  authorityPem_ = pemOf(authority.get());
  require(
      SSL_CTX_use_certificate(context_.get(), own.get()) == 1 && SSL_CTX_use_PrivateKey(context_.get(), key.get()) == 1,
      "certificate");
  SSL_CTX_set_alpn_select_cb(context_.get(), protocol == Protocol::http2 ? chooseHttp2 : chooseHttp1, nullptr);
  listener_ = base::openSocket(AF_INET, SOCK_STREAM);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  require(::bind(listener_.get(), generic, size) == 0 && ::listen(listener_.get(), 128) == 0 &&
              ::getsockname(listener_.get(), generic, &size) == 0,
          "listener");
  port_ = ntohs(address.sin_port);
  acceptor_ = std::jthread([this] { accept(); });
}

TlsStub::~TlsStub() {
  std::list<std::jthread> threads;
  {
    const base::Lock lock(mutex_);
    stopping_ = true;
    for (const auto& [number, socket] : sockets_) ::shutdown(socket, SHUT_RDWR);
  }
  ::shutdown(listener_.get(), SHUT_RDWR);
  acceptor_.join();
  {
    const base::Lock lock(mutex_);
    threads.swap(threads_);
  }
  threads.clear();  // waits for the scripts
}

void TlsStub::accept() {
  for (;;) {
    base::Descriptor socket = base::acceptFrom(listener_.get());
    const base::Lock lock(mutex_);
    if (!socket || stopping_) return;
    const int on = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const int number = ++connections_;
    sockets_[number] = socket.get();
    threads_.emplace_back([this, number, held = std::move(socket)]() mutable { serve(number, std::move(held)); });
  }
}

void TlsStub::serve(int number, base::Descriptor socket) {
  const std::unique_ptr<SSL, decltype(&SSL_free)> tls(SSL_new(context_.get()), &SSL_free);
  Connection connection;
  connection.stub_ = this;
  connection.number_ = number;
  connection.socket_ = std::move(socket);
  connection.tls_ = tls.get();
  SSL_set_fd(tls.get(), connection.socket_.get());
  if (SSL_accept(tls.get()) == 1) {
    script_(connection);
    SSL_shutdown(tls.get());
  }
  const base::Lock lock(mutex_);
  sockets_.erase(number);
}

TlsStub::Script TlsStub::answering(std::string answer) {
  return [answer = std::move(answer)](Connection& connection) {
    while (connection.next() && connection.send(answer)) {
    }
  };
}

std::string chunk(std::string_view bytes) {
  char size[20];
  std::snprintf(size, sizeof size, "%zx\r\n", bytes.size());
  return std::string(size).append(bytes).append("\r\n");
}

std::string jsonAnswer(std::string_view body, std::string_view extraHeaders, int status) {
  return "HTTP/1.1 " + std::to_string(status) + " Status\r\nContent-Type: application/json\r\n" +
         std::string(extraHeaders) + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

std::string streamAnswer(const std::vector<std::string>& pieces) {
  std::string answer(kStreamHead);
  for (const std::string& piece : pieces) answer += chunk(piece);
  return answer + "0\r\n\r\n";
}

}  // namespace sorvane::test
