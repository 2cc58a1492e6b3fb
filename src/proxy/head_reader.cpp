#include "proxy/head_reader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "proxy/http_text.h"

namespace sorvane::proxy {
namespace {

constexpr std::string_view kNotAccepted = "The request is not one the sorvane proxy accepts.";

// Known methods; what is served under them is decided with the route. CONNECT and TRACE are never served.
constexpr std::array<std::string_view, 7> kMethods{"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE", "OPTIONS"};

// Written with underscores these would be read differently by others.
constexpr std::array<std::string_view, 3> kLookalikes{"content_length", "transfer_encoding", "x_api_key"};

// What "connection" may name. The upgrade that some clients offer by themselves is not taken up.
constexpr std::array<std::string_view, 5> kConnectionOptions{"close", "keep-alive", "upgrade", "http2-settings", "te"};

// A pair of these is the credential check's to refuse.
constexpr std::array<std::string_view, 2> kCredentialNames{"authorization", "x-api-key"};

// A list that some clients send as several headers of one item each.
constexpr std::string_view kListHeader = "anthropic-beta";

template <std::size_t N>
bool isOneOf(std::string_view text, const std::array<std::string_view, N>& list) {
  return std::any_of(list.begin(), list.end(), [&](std::string_view item) { return sameName(text, item); });
}

bool isPlainTarget(std::string_view target) {
  // RFC 9112 3.2.1, origin form: "/" and what RFC 3986 lets stand in a path and a query.
  if (target.empty() || target.front() != '/') return false;
  for (std::size_t at = 0; at < target.size(); ++at) {
    const char byte = target[at];
    if (byte == '%') {
      if (at + 2 >= target.size() || !isHexDigit(target[at + 1]) || !isHexDigit(target[at + 2])) return false;
    } else if (!isAlphanumeric(byte) && std::string_view("-._~!$&'()*+,;=:@/?").find(byte) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

std::optional<std::int64_t> parseContentLength(std::string_view text) {
  // 18 digits stay below the largest 64-bit value; no body that is accepted comes near.
  if (text.empty() || text.size() > 18 || !std::all_of(text.begin(), text.end(), isDigit)) return std::nullopt;
  std::int64_t length = 0;
  std::from_chars(text.data(), text.data() + text.size(), length);
  return length;
}

bool isPlainConnection(std::string_view value) {
  for (bool more = true; more;) {
    const std::size_t comma = value.find(',');
    more = comma != std::string_view::npos;
    if (!isOneOf(trimmed(value.substr(0, comma)), kConnectionOptions)) return false;
    if (more) value.remove_prefix(comma + 1);
  }
  return true;
}

// Headers of one hop that would change how the connection goes on.
bool isAcceptableHop(std::string_view name, std::string_view value) {
  if (sameName(name, "connection")) return isPlainConnection(value);
  if (sameName(name, "upgrade")) return sameName(value, "h2c");
  if (sameName(name, "te")) return sameName(value, "trailers");
  return !sameName(name, "proxy-authorization");
}

}  // namespace

std::string_view targetIn(std::string_view bytes) {
  if (bytes.starts_with("\r\n")) bytes.remove_prefix(2);
  const std::string_view line = bytes.substr(0, bytes.find_first_of("\r\n"));
  const std::size_t space = line.find(' ');
  const std::size_t start = space == std::string_view::npos ? space : line.find_first_not_of(' ', space);
  if (start == std::string_view::npos) return {};
  return line.substr(start, line.find(' ', start) - start);
}

ProxyHeadReader::State ProxyHeadReader::feed(std::string_view bytes) {
  if (state_ != State::reading) return state_;
  buffer_.append(bytes);
  if (const Verdict found = scan()) {
    violation_ = *found;
    state_ = State::refused;
  }
  return state_;
}

ProxyRefusal ProxyHeadReader::refusal() const {
  return {violation_.status, ProxyRefusal::Kind::invalidRequest, std::string(violation_.code),
          std::string(kNotAccepted), std::nullopt};
}

ProxyHeadReader::Verdict ProxyHeadReader::scan() {
  while (scanned_ < buffer_.size() && state_ == State::reading) {
    if (const Verdict found = takeByte(buffer_[scanned_])) return found;
  }
  return std::nullopt;
}

ProxyHeadReader::Verdict ProxyHeadReader::takeByte(char byte) {
  const bool afterCr = scanned_ > lineStart_ && buffer_[scanned_ - 1] == '\r';
  if (!firstLineEnd_ && scanned_ - lineStart_ >= kMaxRequestLineBytes) return Violation{414, "request_line_too_long"};
  if (scanned_ >= kMaxHeadBytes) return Violation{431, "headers_too_large"};
  if (afterCr && byte != '\n') return Violation{400, "bare_cr"};
  if (byte == '\n') {
    if (!afterCr) return Violation{400, "bare_lf"};
    const std::string_view line = std::string_view(buffer_).substr(lineStart_, scanned_ - 1 - lineStart_);
    lineStart_ = ++scanned_;
    return takeLine(line);
  }
  const bool control = static_cast<unsigned char>(byte) < 0x20 && byte != '\r' && byte != '\t';
  if (control || byte == 0x7f) return Violation{400, "bad_byte"};
  ++scanned_;
  return std::nullopt;
}

ProxyHeadReader::Verdict ProxyHeadReader::takeLine(std::string_view line) {
  if (firstLineEnd_) return line.empty() ? end() : headerLine(line);
  if (line.empty()) {
    // RFC 9112 2.2: one empty line before the request line is passed over.
    if (std::exchange(skippedLine_, true)) return Violation{400, "bad_request_line"};
    return std::nullopt;
  }
  firstLineEnd_ = lineStart_;
  return requestLine(line);
}

ProxyHeadReader::Verdict ProxyHeadReader::requestLine(std::string_view line) {
  const std::size_t first = line.find(' ');
  const std::size_t second = first == std::string_view::npos ? first : line.find(' ', first + 1);
  if (second == std::string_view::npos || line.find(' ', second + 1) != std::string_view::npos || first == 0 ||
      second == first + 1 || line.find('\t') != std::string_view::npos) {
    return Violation{400, "bad_request_line"};
  }
  const std::string_view method = line.substr(0, first);
  const std::string_view target = line.substr(first + 1, second - first - 1);
  if (!isToken(method)) return Violation{400, "bad_method"};
  if (line.substr(second + 1) != "HTTP/1.1") return Violation{400, "bad_version"};
  if (!isPlainTarget(target)) return Violation{400, "bad_target"};
  if (std::find(kMethods.begin(), kMethods.end(), method) == kMethods.end()) {
    return Violation{405, "method_not_allowed"};
  }
  head_.method = method;
  const std::size_t mark = target.find('?');
  head_.path = target.substr(0, mark);
  if (mark != std::string_view::npos) head_.query = target.substr(mark + 1);
  return std::nullopt;
}

ProxyHeadReader::Verdict ProxyHeadReader::headerLine(std::string_view line) {
  if (line.front() == ' ' || line.front() == '\t') return Violation{400, "obs_fold"};
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return Violation{400, "bad_header"};
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = trimmed(line.substr(colon + 1));
  if (!isToken(name) || isOneOf(name, kLookalikes)) return Violation{400, "bad_header"};
  if (!isFieldValue(value) || !isAcceptableHop(name, value)) return Violation{400, "bad_header_value"};
  return addHeader(name, value);
}

ProxyHeadReader::Verdict ProxyHeadReader::addHeader(std::string_view name, std::string_view value) {
  const auto same = std::find_if(head_.headers.begin(), head_.headers.end(),
                                 [&](const ProxyHeader& header) { return sameName(header.name, name); });
  if (same != head_.headers.end()) {
    if (sameName(name, kListHeader)) {
      same->value.append(", ").append(value);
      return std::nullopt;
    }
    if (!isOneOf(name, kCredentialNames)) return Violation{400, "duplicate_header"};
  }
  if (head_.headers.size() == kMaxHeaders) return Violation{431, "too_many_headers"};
  if (sameName(name, "content-length")) {
    head_.contentLength = parseContentLength(value);
    if (!head_.contentLength) return Violation{400, "bad_content_length"};
  }
  transferEncoding_ = transferEncoding_ || sameName(name, "transfer-encoding");
  head_.headers.push_back({std::string(name), std::string(value)});
  return std::nullopt;
}

ProxyHeadReader::Verdict ProxyHeadReader::end() {
  if (transferEncoding_) {
    return head_.contentLength ? Violation{400, "smuggling"} : Violation{501, "transfer_encoding_not_supported"};
  }
  state_ = State::finished;
  return std::nullopt;
}

}  // namespace sorvane::proxy
