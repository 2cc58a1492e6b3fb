#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace sorvane::proxy {

/// Lets a map with text as its key be searched by a view, without a copy of the text.
struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};
template <typename Value>
using TextMap = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;

}  // namespace sorvane::proxy
