#include "proxy/curl_line.h"

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "base/secret_text.h"

namespace sorvane::proxy {
namespace {

constexpr long kConnectMilliseconds = 15'000;
/// Longer than the pool keeps a line, so that curl does not drop a connection that the pool gave.
constexpr long kConnectionAgeSeconds = 90;
/// How long one wait may last; what matters wakes it.
constexpr int kWaitMilliseconds = 60'000;
/// How long the end of an answer is waited for whose client has left with its last event.
constexpr std::chrono::milliseconds kLinger{100};

struct FreeList {
  void operator()(curl_slist* list) const {
    // The list holds a copy of the credential.
    for (const curl_slist* item = list; item != nullptr; item = item->next) {
      base::wipe(item->data, std::strlen(item->data));
    }
    curl_slist_free_all(list);
  }
};

/// As TLS agreed upon it; of a library that is this program's own.
UpstreamProtocol protocolOf(CURL* easy) {
  curl_tlssessioninfo* session = nullptr;
  if (curl_easy_getinfo(easy, CURLINFO_TLS_SSL_PTR, &session) != CURLE_OK || session == nullptr ||
      session->internals == nullptr || session->backend != CURLSSLBACKEND_OPENSSL) {
    return UpstreamProtocol::http1;
  }
  const unsigned char* name = nullptr;
  unsigned size = 0;
  SSL_get0_alpn_selected(static_cast<const SSL*>(session->internals), &name, &size);
  return size == 2 && std::memcmp(name, "h2", 2) == 0 ? UpstreamProtocol::http2 : UpstreamProtocol::http1;
}

/// How the one call of the handle ended, as curl sees it.
CURLcode resultOf(CURLM* multi) {
  int left = 0;
  const CURLMsg* const message = curl_multi_info_read(multi, &left);
  return message != nullptr && message->msg == CURLMSG_DONE ? message->data.result : CURLE_ABORTED_BY_CALLBACK;
}

enum class ClientSocket { open, talksOn, gone };

/// So much that a client sends behind its request is read and dropped, so that its end can be seen behind it.
constexpr std::size_t kMostDropped = 262'144;

/// Looks whether the client is still there. A client that only closed its sending half cannot be told from one that
/// is gone, and counts as gone.
ClientSocket look(int socket, std::size_t& dropped) {
  std::array<char, 4'096> bytes{};
  while (dropped < kMostDropped) {
    const ssize_t got = ::recv(socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got == 0) return ClientSocket::gone;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? ClientSocket::open : ClientSocket::gone;
    dropped += static_cast<std::size_t>(got);
  }
  return ClientSocket::talksOn;
}

}  // namespace

struct CurlLine::Call {
  UpstreamReceiver& receiver;
  std::unique_ptr<curl_slist, FreeList> headers{};
  UpstreamHeadReader reader{};
  UpstreamChunks chunks{};
  bool protocolKnown = false;
  bool headGiven = false;
  std::uint64_t bodyBytes = 0;
  bool lastGiven = false;
  int attempts = 0;     ///< connections that stood, ready to send
  long sentBefore = 0;  ///< what was sent before this attempt: the proxy's own request
  bool sentEarlier = false;
  Ended ended = Ended::no;
  bool watchesClient = true;
  std::size_t droppedBytes = 0;  ///< that the client sent behind its request
  std::optional<std::chrono::steady_clock::time_point> lingersUntil{};
  std::exception_ptr thrown{};  ///< by the receiver

  int waitMilliseconds() const { return lingersUntil ? static_cast<int>(kLinger.count()) : kWaitMilliseconds; }
};

void CurlLine::FreeEasy::operator()(void* easy) const {
  curl_easy_cleanup(easy);
}
void CurlLine::FreeMulti::operator()(void* multi) const {
  curl_multi_cleanup(multi);
}

struct CurlLine::Callbacks {
  static CURLcode onContext(CURL*, void* context, void* self) {
    SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(context), static_cast<CurlLine*>(self)->shared_->trust().store());
    return CURLE_OK;
  }
  static int onConnected(void* self, char*, char*, int, int) {
    return static_cast<CurlLine*>(self)->maySend() ? CURL_PREREQFUNC_OK : CURL_PREREQFUNC_ABORT;
  }
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self) {
    return give(self, &CurlLine::takeLine, {data, size * count});
  }
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self) {
    return give(self, &CurlLine::takeBody, {data, size * count});
  }

 private:
  /// Tells curl that all was taken, or nothing. No exception may pass through curl; it goes on behind it.
  static std::size_t give(void* self, bool (CurlLine::*take)(std::string_view), std::string_view bytes) {
    CurlLine& line = *static_cast<CurlLine*>(self);
    try {
      return (line.*take)(bytes) ? bytes.size() : 0;
    } catch (...) {
      line.call_->thrown = std::current_exception();
      line.call_->ended = Ended::byReceiver;
      return 0;
    }
  }
};

CurlLine::CurlLine(std::shared_ptr<const CurlShared> shared)
    : shared_(std::move(shared)), multi_(curl_multi_init()), easy_(curl_easy_init()) {
  if (!multi_ || !easy_) throw std::bad_alloc();
  setUp();
}

CurlLine::~CurlLine() = default;

void CurlLine::setUp() {
  CURL* const easy = easy_.get();
  const TransportSettings& settings = shared_->settings();
  const std::string agent = "sorvane-local-proxy/" + settings.version;
  curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, 1L);
  curl_easy_setopt(easy, CURLOPT_SHARE, shared_->handle());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(easy, CURLOPT_USERAGENT, agent.c_str());
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  // Empty names also keep the environment's proxies and exceptions out.
  curl_easy_setopt(easy, CURLOPT_PROXY, settings.outboundProxy ? settings.outboundProxy->c_str() : "");
  curl_easy_setopt(easy, CURLOPT_NOPROXY, "");
  curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl_easy_setopt(easy, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  // A call that ends while a name is looked up does not wait for the resolver.
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, kConnectMilliseconds);
  curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, kConnectionAgeSeconds);
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  // Framing is taken off here, more strictly than curl would.
  curl_easy_setopt(easy, CURLOPT_HTTP_TRANSFER_DECODING, 0L);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Callbacks::onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Callbacks::onBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &Callbacks::onConnected);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, this);
  setUpTrust();
}

void CurlLine::setUpTrust() {
  CURL* const easy = easy_.get();
  const CurlTrust& trust = shared_->trust();
  if (trust.tls() == CurlTls::ours) {
    // The authorities come from the shared store alone.
    curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &Callbacks::onContext);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, this);
    return;
  }
  // Which protocol was agreed upon cannot be asked of a library that is not ours, so that there is one only.
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  if (trust.text().empty()) return;
  curl_blob text{const_cast<char*>(trust.text().data()), trust.text().size(), CURL_BLOB_NOCOPY};
  curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &text);
}

bool CurlLine::prepare(const UpstreamRequest& request, Call& call) {
  CURL* const easy = easy_.get();
  const auto add = [&](const char* line) {
    curl_slist* const longer = curl_slist_append(call.headers.get(), line);
    if (longer == nullptr) return false;
    static_cast<void>(call.headers.release());
    call.headers.reset(longer);
    return true;
  };
  bool added = add("Expect:") && add("Accept-Encoding: identity");
  std::string line;
  for (const ProxyHeader& header : request.headers) {
    line.assign(header.name).append(": ").append(header.value);
    added = added && add(line.c_str());
  }
  if (!request.credential.empty()) {
    base::SecretText credential = request.credential.clone();
    credential.push_back('\0');
    added = added && add(credential.data());
  }
  if (!added || curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str()) != CURLE_OK) return false;
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, call.headers.get());
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeLimit.count() * 1'000));
  if (request.body) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body->data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  }
  return true;
}

UpstreamResult CurlLine::run(const UpstreamRequest& request, UpstreamReceiver& receiver, const UpstreamWatch& watch) {
  Call call{receiver};
  call.watchesClient = watch.client >= 0;
  if (!prepare(request, call)) return {.error = ProxyTransportError::notSent};
  call_ = &call;
  {
    const std::stop_callback wake(watch.stop, [this] { curl_multi_wakeup(multi_.get()); });
    curl_multi_add_handle(multi_.get(), easy_.get());
    drive(call, watch);
  }
  const UpstreamResult result = outcome(call);
  curl_multi_remove_handle(multi_.get(), easy_.get());
  curl_easy_setopt(easy_.get(), CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDS, nullptr);
  reusable_ = !result.error && call.ended == Ended::no && !call.chunks.excess();
  call_ = nullptr;
  if (call.thrown) std::rethrow_exception(call.thrown);
  return result;
}

void CurlLine::drive(Call& call, const UpstreamWatch& watch) {
  // Once it is sent it is paid for.
  if (call.watchesClient) lookAtClient(call, watch.client);
  if (watch.stop.stop_requested()) call.ended = Ended::stopped;
  while (call.ended == Ended::no) {
    int running = 0;
    if (curl_multi_perform(multi_.get(), &running) != CURLM_OK || running == 0) return;
    if (call.headGiven) call.receiver.quiet();
    wait(call, watch);
  }
}

void CurlLine::lookAtClient(Call& call, int client) {
  switch (look(client, call.droppedBytes)) {
    case ClientSocket::open:
      break;
    case ClientSocket::talksOn:
      // It would wake every wait; from now on its end is seen by writing to it.
      call.watchesClient = false;
      break;
    case ClientSocket::gone:
      call.watchesClient = false;
      if (call.headGiven && call.receiver.hasEnough()) {
        // Clients leave at the last event; the end that follows it keeps the connection for the next call.
        call.lingersUntil = std::chrono::steady_clock::now() + kLinger;
      } else {
        call.ended = Ended::hungUp;
      }
      break;
  }
}

void CurlLine::wait(Call& call, const UpstreamWatch& watch) {
  curl_waitfd client{watch.client, CURL_WAIT_POLLIN, 0};
  // A client that has the whole answer may go.
  const bool watched = call.watchesClient && !call.lastGiven;
  // A stop from now on wakes the wait; one from before has left its mark there.
  curl_multi_poll(multi_.get(), &client, watched ? 1 : 0, call.waitMilliseconds(), nullptr);
  if (watch.stop.stop_requested()) {
    call.ended = Ended::stopped;
  } else if (client.revents != 0) {
    lookAtClient(call, watch.client);
  } else if (call.lingersUntil && std::chrono::steady_clock::now() >= *call.lingersUntil) {
    call.ended = Ended::hungUp;
  }
}

long CurlLine::sentBytes() const {
  long bytes = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_REQUEST_SIZE, &bytes);
  return bytes;
}

bool CurlLine::anySent(const Call& call) const {
  return call.sentEarlier || (call.attempts > 0 && sentBytes() != call.sentBefore);
}

bool CurlLine::maySend() {
  Call& call = *call_;
  // curl sends again by itself when a connection that it kept turns out dead. That is right as long as nothing was
  // sent, and wrong for a request that the provider may have begun to work on.
  call.sentEarlier = anySent(call);
  if (call.sentEarlier) {
    call.ended = Ended::resend;
    return false;
  }
  ++call.attempts;
  call.sentBefore = sentBytes();
  return true;
}

bool CurlLine::takeLine(std::string_view line) {
  Call& call = *call_;
  if (call.headGiven) return true;  // a trailer
  if (!call.protocolKnown) {
    call.protocolKnown = true;
    const bool asked = shared_->trust().tls() == CurlTls::ours && line.starts_with("HTTP/2");
    call.reader = UpstreamHeadReader(asked ? protocolOf(easy_.get()) : UpstreamProtocol::http1);
  }
  switch (call.reader.line(line)) {
    case UpstreamHeadReader::State::reading:
      return true;
    case UpstreamHeadReader::State::complete:
      return takeHead();
    case UpstreamHeadReader::State::refused:
      call.ended = Ended::badAnswer;
      break;
  }
  return false;
}

bool CurlLine::takeHead() {
  Call& call = *call_;
  call.headGiven = true;
  UpstreamHead head = call.reader.head();
  const bool redirected = isRedirect(head.status);
  const bool empty = head.contentLength == std::uint64_t{0};
  if (!call.receiver.head(std::move(head))) {
    call.ended = Ended::byReceiver;
  } else if (redirected) {
    call.ended = Ended::redirected;
  } else if (empty) {
    call.lastGiven = true;
    if (!call.receiver.body({}, UpstreamPiece::last)) call.ended = Ended::byReceiver;
  }
  return call.ended == Ended::no;
}

bool CurlLine::takeBody(std::string_view bytes) {
  Call& call = *call_;
  const UpstreamHead& head = call.reader.head();
  if (call.lastGiven) return true;  // behind the end
  if (head.chunked) {
    plain_.clear();
    const bool wellFormed = call.chunks.feed(bytes, plain_);
    bytes = plain_;
    call.lastGiven = call.chunks.ended();
    if (!wellFormed) call.ended = Ended::badAnswer;
  }
  call.bodyBytes += bytes.size();
  if (head.contentLength) call.lastGiven = call.bodyBytes == *head.contentLength;
  if (!bytes.empty() || call.lastGiven) {
    const UpstreamPiece piece = call.lastGiven ? UpstreamPiece::last : UpstreamPiece::more;
    if (!call.receiver.body(bytes, piece) && call.ended == Ended::no) call.ended = Ended::byReceiver;
  }
  return call.ended == Ended::no;
}

UpstreamResult CurlLine::outcome(Call& call) const {
  const CURLcode code = resultOf(multi_.get());
  const bool sent = call.headGiven || anySent(call);
  const auto failed = [&](ProxyTransportError error) {
    return UpstreamResult{.error = error,
                          .sent = sent,
                          .hungUp = call.ended == Ended::hungUp,
                          .badAnswer = call.ended == Ended::badAnswer};
  };
  const UpstreamResult whole{.error = std::nullopt, .sent = sent};
  // The answer was whole before this side ended the call.
  if (call.lastGiven && (call.ended == Ended::stopped || call.ended == Ended::hungUp)) return whole;
  switch (call.ended) {
    case Ended::no:
      break;
    case Ended::redirected:
      return failed(ProxyTransportError::redirected);
    case Ended::badAnswer:
    case Ended::resend:
      return failed(ProxyTransportError::mayHaveBeenSent);
    case Ended::byReceiver:
    case Ended::stopped:
    case Ended::hungUp:
      return failed(ProxyTransportError::cancelled);
  }
  const bool unframed = !call.reader.head().chunked && !call.reader.head().contentLength;
  if (call.lastGiven || (code == CURLE_OK && call.headGiven && unframed)) return whole;
  if (!sent) return failed(ProxyTransportError::notSent);
  return failed(code == CURLE_OPERATION_TIMEDOUT ? ProxyTransportError::timedOut
                                                 : ProxyTransportError::mayHaveBeenSent);
}

}  // namespace sorvane::proxy
