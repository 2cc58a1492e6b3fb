// What is accepted as the words of a command names a program first, and never an option or an assignment of env.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "agent/command_words.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto words = sorvane::agent::decodeCommandWords({reinterpret_cast<const char*>(data), size});
  if (!words) return 0;
  if (words->empty() || words->size() > sorvane::agent::kMaxCommandWords) std::abort();
  const std::string& program = words->front();
  if (program.empty() || program.front() == '-' || program.find('=') != std::string::npos) std::abort();
  for (const std::string& word : *words) {
    if (word.find('\0') != std::string::npos) std::abort();
  }
  return 0;
}
