#pragma once

#include <signal.h>

namespace sorvane::cli {

/// NoteInterrupt has the first Ctrl-C only noted for as long as it lives; a read that waits ends then. A second one
/// ends the program.
class NoteInterrupt {
 public:
  NoteInterrupt();
  ~NoteInterrupt();
  NoteInterrupt(const NoteInterrupt&) = delete;
  NoteInterrupt& operator=(const NoteInterrupt&) = delete;

 private:
  struct sigaction before_ {};
};

/// Whether a Ctrl-C was noted.
bool wasInterrupted();

}  // namespace sorvane::cli
