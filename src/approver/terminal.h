#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "base/error.h"
#include "base/secret_text.h"

namespace sorvane::approver {

/// Interrupted ends whatever waits when Control-C or a stop signal came.
class Interrupted : public base::Error {
 public:
  explicit Interrupted(int number) : Error("Stopped. Nothing more is answered."), number_(number) {}
  int number() const { return number_; }

 private:
  int number_;
};

/// StopSignals turns SIGINT, SIGTERM and SIGHUP into something that can be waited for. One in a process; a second
/// signal ends the program.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  /// Readable once a signal came, and from then on.
  int descriptor() const;
  /// Throws Interrupted when one came.
  void check() const;
};

/// Waits until `descriptor` is ready for `events` of poll(2), or until `milliseconds` are over (-1: no end); false
/// then. Throws Interrupted.
bool waitFor(int descriptor, short events, int milliseconds, const StopSignals& signals);

/// NoTerminal: nobody can be asked here.
class NoTerminal : public base::Error {
 public:
  NoTerminal();
};

/// Terminal is the terminal that the program was started on, whatever its standard streams are: what a person is asked
/// and answers goes over nothing else. One thread.
class Terminal {
 public:
  /// Throws NoTerminal.
  explicit Terminal(const StopSignals& signals);

  void show(std::string_view text);
  /// A line typed without echo; nullopt when the input ended. At most kMostHidden bytes; more is read and refused as
  /// nullopt. Throws Interrupted, with the terminal as it was before.
  std::optional<base::SecretText> hiddenLine(std::string_view prompt);
  /// A line typed with echo, without its end; nullopt when the input ended.
  std::optional<std::string> line(std::string_view prompt);

  int descriptor() const { return file_.get(); }
  /// Reads what is there without waiting and takes the next whole line of it, if any. `isEnded` from then on when the
  /// terminal has gone or Control-D was typed.
  std::optional<std::string> typedLine();
  bool isEnded() const { return isEnded_; }
  void discardTyped();
  std::size_t width() const;

  static constexpr std::size_t kMostHidden = 1024;

 private:
  void readMore();

  const StopSignals& signals_;
  base::Descriptor file_;
  std::string typed_;
  bool isEnded_ = false;
};

}  // namespace sorvane::approver
