#include "proxy/upstream_chunks.h"

#include <algorithm>

namespace sorvane::proxy {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool UpstreamChunks::feed(std::string_view raw, std::string& out) {
  while (!raw.empty() && state_ != State::refused) {
    if (state_ == State::ended) {
      excess_ = true;
      return true;
    }
    if (state_ == State::data) {
      const std::size_t taken = static_cast<std::size_t>(std::min<std::uint64_t>(left_, raw.size()));
      out.append(raw.substr(0, taken));
      raw.remove_prefix(taken);
      left_ -= taken;
      if (left_ == 0) state_ = State::dataCr;
      continue;
    }
    state_ = next(raw.front());
    raw.remove_prefix(1);
  }
  return state_ != State::refused;
}

UpstreamChunks::State UpstreamChunks::nextOfSize(char c) {
  if (const int value = hexValue(c); value >= 0) {
    left_ = left_ * 16 + static_cast<std::uint64_t>(value);
    return ++digits_ > kMostSizeDigits ? State::refused : State::size;
  }
  if (digits_ == 0) return State::refused;
  lineBytes_ = 0;
  if (c == '\r') return State::sizeEnd;
  return c == ';' || c == ' ' || c == '\t' ? State::extension : State::refused;
}

UpstreamChunks::State UpstreamChunks::next(char c) {
  switch (state_) {
    case State::size:
      return nextOfSize(c);
    case State::extension:
      if (c == '\n' || ++lineBytes_ > kMostLineBytes) return State::refused;
      return c == '\r' ? State::sizeEnd : State::extension;
    case State::sizeEnd:
      lineBytes_ = 0;
      if (c != '\n') return State::refused;
      return left_ > 0 ? State::data : State::trailerStart;
    case State::dataCr:
      return c == '\r' ? State::dataLf : State::refused;
    case State::dataLf:
      digits_ = 0;
      return c == '\n' ? State::size : State::refused;
    case State::trailerStart:
      if (c == '\n') return State::refused;
      return c == '\r' ? State::lastLf : State::trailer;
    case State::trailer:
      if (c == '\n' || ++lineBytes_ > kMostTrailerBytes) return State::refused;
      return c == '\r' ? State::trailerLf : State::trailer;
    case State::trailerLf:
      return c == '\n' ? State::trailerStart : State::refused;
    case State::lastLf:
      return c == '\n' ? State::ended : State::refused;
    case State::data:
    case State::ended:
    case State::refused:
      break;
  }
  return state_;
}

}  // namespace sorvane::proxy
