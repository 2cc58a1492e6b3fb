#include "base/diagnostics.h"

#include <unistd.h>

#include <string>

namespace sorvane::base {

void diagnose(std::string_view component, std::string_view text) {
  std::string line;
  line.reserve(component.size() + text.size() + 4);
  line.append("[").append(component).append("] ").append(text).append("\n");
  // A closed or full standard error must not end the application: what cannot be written is dropped.
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace sorvane::base
