#include "platform/shared/reason_text.h"

#include <algorithm>

#include "base/unicode.h"

namespace sorvane::platform {

std::string reasonText(std::string_view reason) {
  std::string text;
  for (std::size_t begin = 0; begin <= reason.size();) {
    const std::size_t end = std::min(reason.find('\n', begin), reason.size());
    if (begin > 0) text += '\n';
    text += base::escapedForDisplay(reason.substr(begin, end - begin));
    begin = end + 1;
  }
  const bool isOneLine = reason.find('\n') == std::string_view::npos;
  if (isOneLine && !text.empty() && std::string_view(".?!").find(text.back()) == std::string_view::npos) text += '.';
  return text;
}

}  // namespace sorvane::platform
