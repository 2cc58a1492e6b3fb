#include "proxy/upstream_head.h"

#include <algorithm>
#include <charconv>

namespace sorvane::proxy {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// A character of a field's name (RFC 9110 section 5.6.2).
bool isTokenCharacter(char c) {
  constexpr std::string_view others = "!#$%&'*+-.^_`|~";
  return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || others.find(c) != std::string_view::npos;
}

bool hasControl(std::string_view text) {
  return std::ranges::any_of(text, [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7F;
  });
}

std::string lowerOf(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return lower;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::optional<std::uint64_t> lengthOf(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

UpstreamHeadReader::State UpstreamHeadReader::line(std::string_view line) {
  if (state_ != State::reading) return state_;
  bytes_ += line.size();
  if (bytes_ > kMostBytes || !line.ends_with("\r\n")) return state_ = State::refused;
  line.remove_suffix(2);
  if (hasControl(line)) return state_ = State::refused;
  if (!begun_) {
    begun_ = true;
    if (!statusLine(line)) state_ = State::refused;
  } else if (line.empty()) {
    state_ = endOfHead();
  } else if (!field(line)) {
    state_ = State::refused;
  }
  return state_;
}

UpstreamHeadReader::State UpstreamHeadReader::endOfHead() {
  if (head_.status >= 200) {
    if (isBodiless(head_.status)) head_.contentLength = 0;
    return State::complete;
  }
  // 101 is no answer to a request that asked for no upgrade.
  if (head_.status == 101 || ++interim_ > kMostInterim) return State::refused;
  head_ = {};
  begun_ = false;
  return State::reading;
}

bool UpstreamHeadReader::statusLine(std::string_view line) {
  const bool versioned = protocol_ == UpstreamProtocol::http2
                             ? line.starts_with("HTTP/2 ")
                             : line.starts_with("HTTP/1.1 ") || line.starts_with("HTTP/1.0 ");
  if (!versioned) return false;
  line.remove_prefix(line.find(' ') + 1);
  if (line.size() < 4 || line[0] < '1' || line[0] > '5' || !isDigit(line[1]) || !isDigit(line[2]) || line[3] != ' ') {
    return false;
  }
  head_.status = (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
  return true;
}

bool UpstreamHeadReader::field(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == 0 || colon == std::string_view::npos || head_.headers.size() == kMostFields) return false;
  const std::string_view name = line.substr(0, colon);
  if (!std::ranges::all_of(name, isTokenCharacter)) return false;
  head_.headers.push_back({lowerOf(name), std::string(trimmed(line.substr(colon + 1)))});
  return framing(head_.headers.back());
}

bool UpstreamHeadReader::framing(const ProxyHeader& field) {
  if (field.name == "content-length") {
    if (head_.contentLength || head_.chunked) return false;
    head_.contentLength = lengthOf(field.value);
    return head_.contentLength.has_value();
  }
  if (field.name == "transfer-encoding") {
    if (head_.contentLength || head_.chunked) return false;
    head_.chunked = lowerOf(field.value) == "chunked";
    return head_.chunked;
  }
  return true;
}

}  // namespace sorvane::proxy
