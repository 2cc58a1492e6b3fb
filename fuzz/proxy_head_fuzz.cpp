// The head reader makes the same of a stream whole and in pieces, and a second, simple reader that looks at the whole
// head at once agrees with what it takes: whatever is finished there has this one form and these headers.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "proxy/head_reader.h"

namespace {

using sorvane::proxy::ProxyHeader;
using sorvane::proxy::ProxyHeadReader;
using State = ProxyHeadReader::State;

void require(bool holds) {
  if (!holds) std::abort();
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return text;
}

/// A head taken apart by its lines, without limits and states; `ok` is whether it is one that may be served.
struct SimpleHead {
  bool ok = false;
  std::string method, target;
  std::vector<ProxyHeader> headers;
  std::string rest;
};

bool hasLoneLineEnd(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\n' && (at == 0 || text[at - 1] != '\r')) return true;
    if (text[at] == '\r' && (at + 1 == text.size() || text[at + 1] != '\n')) return true;
  }
  return false;
}

bool onlyOf(std::string_view text, std::string_view others) {
  return std::all_of(text.begin(), text.end(), [&](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           others.find(c) != std::string_view::npos;
  });
}

std::string stripped(std::string text) {
  const auto first = text.find_first_not_of(" \t");
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool isServable(const SimpleHead& head) {
  int lengths = 0;
  std::vector<std::string> names;
  for (const ProxyHeader& header : head.headers) {
    const std::string name = lower(header.name);
    if (name.empty() || !onlyOf(name, "!#$%&'*+-.^_`|~") || name == "transfer-encoding") return false;
    if (std::any_of(header.value.begin(), header.value.end(),
                    [](char c) { return (c < ' ' && c != '\t') || c > '~'; })) {
      return false;
    }
    lengths += name == "content-length" ? 1 : 0;
    const bool mayRepeat = name == "authorization" || name == "x-api-key" || name == "anthropic-beta";
    if (!mayRepeat && std::find(names.begin(), names.end(), name) != names.end()) return false;
    names.push_back(name);
  }
  return lengths <= 1 && head.target.starts_with("/") && onlyOf(head.target, "-._~!$&'()*+,;=:@/?%");
}

SimpleHead readSimply(std::string text) {
  SimpleHead head;
  if (text.starts_with("\r\n")) text.erase(0, 2);
  const auto end = text.find("\r\n\r\n");
  if (end == std::string::npos) return head;
  head.rest = text.substr(end + 4);
  text.resize(end + 2);
  if (hasLoneLineEnd(text)) return head;
  std::vector<std::string> lines;
  for (std::size_t at = 0, next = 0; (next = text.find("\r\n", at)) != std::string::npos; at = next + 2) {
    lines.push_back(text.substr(at, next - at));
  }
  const std::string& first = lines.front();
  if (std::count(first.begin(), first.end(), ' ') != 2 || !first.ends_with(" HTTP/1.1")) return head;
  head.method = first.substr(0, first.find(' '));
  head.target = first.substr(head.method.size() + 1, first.rfind(' ') - head.method.size() - 1);
  for (std::size_t at = 1; at < lines.size(); ++at) {
    const auto colon = lines[at].find(':');
    if (colon == std::string::npos) return head;
    head.headers.push_back({lines[at].substr(0, colon), stripped(lines[at].substr(colon + 1))});
  }
  head.ok = isServable(head);
  return head;
}

std::string targetOf(const ProxyHeadReader& reader) {
  const auto& head = reader.head();
  return head.path + (head.query ? "?" + *head.query : "");
}

void compareWhole(const ProxyHeadReader& reader, std::string_view bytes) {
  const SimpleHead simple = readSimply(std::string(bytes));
  require(simple.ok);
  require(simple.method == reader.head().method && simple.target == targetOf(reader) && simple.rest == reader.rest());
  std::vector<ProxyHeader> joined;
  std::string betas, length;
  for (const ProxyHeader& header : simple.headers) {
    const std::string name = lower(header.name);
    if (name == "content-length") length = header.value;
    if (name == "anthropic-beta") {
      betas += (betas.empty() ? "" : ", ") + header.value;
    } else {
      joined.push_back(header);
    }
  }
  std::size_t at = 0;
  for (const ProxyHeader& header : reader.head().headers) {
    if (lower(header.name) == "anthropic-beta") continue;
    require(at < joined.size() && joined[at].name == header.name && joined[at].value == header.value);
    ++at;
  }
  require(at == joined.size());
  const auto& told = reader.head().contentLength;
  require(told.has_value() == !length.empty());
  if (told) require(length.find_first_not_of("0123456789") == std::string::npos && std::stoll(length) == *told);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  ProxyHeadReader whole, pieces;
  whole.feed(bytes);
  std::size_t at = 0;
  for (std::size_t step = 1; at < bytes.size() && pieces.state() == State::reading; step = step % 7 + 1) {
    pieces.feed(bytes.substr(at, step));
    at += std::min(step, bytes.size() - at);
  }
  require(whole.state() == pieces.state());
  if (whole.state() == State::refused) {
    const auto one = whole.refusal(), other = pieces.refusal();
    require(one.code == other.code && one.status == other.status && !one.code.empty());
  }
  if (whole.state() == State::finished) {
    require(targetOf(whole) == targetOf(pieces) && whole.head().headers.size() == pieces.head().headers.size());
    require(whole.rest() == std::string(pieces.rest()).append(bytes.substr(at)));
    compareWhole(whole, bytes);
  } else if (whole.state() == State::reading) {
    require(!readSimply(std::string(bytes)).ok);
  }
  return 0;
}
