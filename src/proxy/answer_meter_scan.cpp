#include "proxy/answer_meter_scan.h"

#include <algorithm>
#include <array>

#include "proxy/body_text.h"

namespace sorvane::proxy {
namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\n' || c == '\t' || c == '\r';
}

/// The characters of numbers and words, as a table: vectors are most of what is read here.
constexpr auto kBare = [] {
  std::array<bool, 256> table{};
  for (const char c : std::string_view("0123456789abcdefghijklmnopqrstuvwxyz-+.E")) {
    table[static_cast<unsigned char>(c)] = true;
  }
  return table;
}();

bool isBare(char c) {
  return kBare[static_cast<unsigned char>(c)];
}

}  // namespace

void AnswerScan::restart() {
  state_ = State::value;
  begun_ = false;
  slot_ = AnswerSlot::none;
  place_ = 0;
  isText_ = false;
  frames_.clear();
  token_.clear();
}

void AnswerScan::feed(std::string_view bytes) {
  const char* at = bytes.data();
  const char* const end = at + bytes.size();
  while (at != end && state_ != State::lost) {
    if (state_ == State::text) {
      at = inString(at, end);
    } else if (state_ == State::bare) {
      at = inBare(at, end);
    } else {
      step(*at++);
    }
  }
}

const char* AnswerScan::inString(const char* at, const char* end) {
  const char* const stop = endOfPlain(at, end);
  keep({at, static_cast<std::size_t>(stop - at)});
  if (stop == end) return end;
  if (*stop == '"') {
    endString();
  } else if (*stop == '\\') {
    keep({stop, 1});
    state_ = State::escape;
  } else {
    state_ = State::lost;
  }
  return stop + 1;
}

const char* AnswerScan::inBare(const char* at, const char* end) {
  const char* stop = at;
  while (stop != end && isBare(*stop)) ++stop;
  keep({at, static_cast<std::size_t>(stop - at)});
  if (stop == end) return end;
  if (slot_ != AnswerSlot::none) sink_.scalar(slot_, token_, false);
  afterValue(*stop);
  return stop + 1;
}

void AnswerScan::keep(std::string_view bytes) {
  if (!isKey_ && isText_) sink_.text(bytes.size());
  // Only keys where some mean something, and values that do, are ever looked at.
  if (isKey_ ? frames_.back().place == kNoPlace : slot_ == AnswerSlot::none) return;
  if (token_.size() < kMostAnswerToken) token_ += bytes.substr(0, kMostAnswerToken - token_.size());
}

void AnswerScan::step(char c) {
  switch (state_) {
    case State::text:
    case State::bare:
    case State::lost:
      return;
    case State::escape:
      keep({&c, 1});
      state_ = State::text;
      return;
    case State::value:
    case State::first:
    case State::firstKey:
    case State::key:
    case State::colon:
    case State::after:
      break;
  }
  if (isSpace(c)) return;
  if (state_ == State::after) return afterValue(c);
  if (state_ == State::colon) {
    state_ = c == ':' ? State::value : State::lost;
  } else if (state_ == State::first && c == ']') {
    close(true);
  } else if (state_ == State::firstKey && c == '}') {
    close(false);
  } else if (state_ == State::key || state_ == State::firstKey) {
    isKey_ = true;
    token_.clear();
    state_ = c == '"' ? State::text : State::lost;
  } else {
    beginValue(c);
  }
}

void AnswerScan::beginValue(char c) {
  // Only an object is an answer.
  if (frames_.empty() && c != '{') {
    state_ = State::lost;
    return;
  }
  begun_ = true;
  isKey_ = false;
  token_.clear();
  if (!frames_.empty() && frames_.back().isArray) meet("[]");
  if (c == '{' || c == '[') {
    open(c == '[');
  } else if (c == '"') {
    state_ = State::text;
  } else if (isBare(c)) {
    state_ = State::bare;
    // A number is no text that the model wrote.
    isText_ = false;
    keep({&c, 1});
  } else {
    state_ = State::lost;
  }
}

void AnswerScan::open(bool isArray) {
  if (frames_.size() == kMostAnswerDepth) {
    state_ = State::lost;
    return;
  }
  frames_.push_back({place_, slot_, isArray, isText_});
  if (slot_ != AnswerSlot::none) sink_.opened(slot_);
  state_ = isArray ? State::first : State::firstKey;
}

void AnswerScan::close(bool isArray) {
  if (frames_.empty() || frames_.back().isArray != isArray) {
    state_ = State::lost;
    return;
  }
  const AnswerSlot slot = frames_.back().slot;
  frames_.pop_back();
  if (slot != AnswerSlot::none) sink_.closed(slot);
  state_ = State::after;
}

void AnswerScan::endString() {
  if (isKey_) {
    meet(token_);
    state_ = State::colon;
    return;
  }
  if (slot_ != AnswerSlot::none) sink_.scalar(slot_, token_, true);
  state_ = State::after;
}

void AnswerScan::afterValue(char c) {
  if (isSpace(c)) {
    state_ = State::after;
  } else if (frames_.empty()) {
    state_ = State::lost;
  } else if (c == ',') {
    state_ = frames_.back().isArray ? State::value : State::key;
  } else if (c == ']' || c == '}') {
    close(c == ']');
  } else {
    state_ = State::lost;
  }
}

void AnswerScan::meet(std::string_view key) {
  const Frame& frame = frames_.back();
  isText_ = frame.isText;
  slot_ = AnswerSlot::none;
  place_ = kNoPlace;
  if (frame.place == kNoPlace) return;
  const auto found = std::find_if(paths_.begin(), paths_.end(),
                                  [&](const AnswerPath& path) { return path.from == frame.place && path.key == key; });
  if (found == paths_.end()) return;
  slot_ = found->slot;
  place_ = found->to;
  isText_ = isText_ || found->slot == AnswerSlot::text;
}

}  // namespace sorvane::proxy
