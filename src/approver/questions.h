#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "approver/question.h"
#include "base/clock.h"

namespace sorvane::approver {

/// Questions shows one question after the other and takes the answer to the one that is shown. Only a line typed behind
/// the question counts: what was typed before is thrown away when it appears, and an answer that comes at once after
/// another question was taken back, or lost with its link, is taken for that one's, whichever stands there then. Enter
/// alone is no answer. One thread.
class Questions {
 public:
  struct Screen {
    std::function<void(std::string_view)> show;
    /// Throws away what was typed and not read yet.
    std::function<void()> discardTyped;
    std::function<std::size_t()> width;
  };
  Questions(Screen screen, const base::Clock& clock) : screen_(std::move(screen)), clock_(clock) {}

  void ask(Question question);
  /// The computer needs no answer to it any more; nothing happens for a question that is not here.
  void withdraw(const std::string& id);
  /// The link ended, and with it every question.
  void withdrawAll();
  /// Takes back what has expired.
  void expire();

  struct Answer {
    std::string id;
    bool isYes = false;
    std::string macName;
  };
  /// A line that was typed, without its end. Behind an answer `showNext` is called.
  std::optional<Answer> take(std::string_view line);
  /// Shows the question that waited behind the answered one, if any.
  void showNext() { showFirst(); }

  /// When `expire` is to be called next; nullopt: nothing waits.
  std::optional<base::Instant> nextExpiry() const;
  bool isAsking() const { return !waiting_.empty(); }

  /// The longest that a question is put for, however far ahead of this clock the computer's is.
  static constexpr std::chrono::seconds kLongestLife{120};
  /// A person who types an answer needs longer than this to have read that the question is another one.
  static constexpr std::chrono::milliseconds kTimeToNotice{1000};

 private:
  struct Waiting {
    Question question;
    base::Instant until;
  };
  void showFirst();
  void remind(std::string_view why);
  void takeBackFirst(std::string_view why);

  const Screen screen_;
  const base::Clock& clock_;
  std::deque<Waiting> waiting_;
  base::Instant countsFrom_{};  ///< an earlier line does not count
};

}  // namespace sorvane::approver
