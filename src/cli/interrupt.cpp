#include "cli/interrupt.h"

#include <atomic>

namespace sorvane::cli {
namespace {

// Set by the signal's handler, which may do no more.
std::atomic<bool> interrupted{false};  // NOLINT: a handler has no other way to tell

}  // namespace

NoteInterrupt::NoteInterrupt() {
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = true; };
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  ::sigaction(SIGINT, &action, &before_);
}

NoteInterrupt::~NoteInterrupt() {
  ::sigaction(SIGINT, &before_, nullptr);
}

bool wasInterrupted() {
  return interrupted;
}

}  // namespace sorvane::cli
