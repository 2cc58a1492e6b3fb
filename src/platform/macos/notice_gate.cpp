#include "platform/macos/notice_gate.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/unicode.h"

namespace sorvane::platform {
namespace {

std::string plainText(const std::string& text) {
  std::string plain = base::repairedUtf8(text);
  std::replace(plain.begin(), plain.end(), '\0', ' ');
  return plain;
}

}  // namespace

Notice::Notice(const std::string& given, const std::string& text) : title(plainText(given)), body(plainText(text)) {}

NoticeGate::Next NoticeGate::take(const Notice& notice) {
  const base::Lock lock(mutex_);
  if (state_ == State::answered) return Next::show;
  if (waiting_.size() == kMaxWaiting) waiting_.pop_front();
  waiting_.push_back(notice);
  return std::exchange(state_, State::asking) == State::unasked ? Next::ask : Next::wait;
}

std::vector<Notice> NoticeGate::answered() {
  const base::Lock lock(mutex_);
  state_ = State::answered;
  const auto waited = std::exchange(waiting_, {});
  return {waited.begin(), waited.end()};
}

}  // namespace sorvane::platform
