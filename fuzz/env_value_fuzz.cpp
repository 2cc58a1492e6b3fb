// Every value that is rendered comes back through a reader of double-quoted .env values written apart from the
// program's own.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "vault/env_value.h"

namespace {

std::string readBack(std::string_view line) {
  std::string_view value = line.substr(line.find('=') + 1);
  if (value.empty() || value.front() != '"') return std::string(value);
  std::string out;
  bool escaped = false;
  for (const char c : value.substr(1)) {
    if (escaped) {
      out += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
      escaped = false;
    } else if (c == '\\') {
      escaped = true;
    } else if (c == '"') {
      break;
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view value(reinterpret_cast<const char*>(data), size);
  sorvane::base::SecretText line;
  sorvane::vault::appendEnvLine(line, "NAME", value);
  if (line.view().find_first_of("\n\r\t") != std::string_view::npos) std::abort();
  if (readBack(line.view()) != value) std::abort();
  if (sorvane::vault::envLineValue(line.view().substr(5)).view() != value) std::abort();
  return 0;
}
