#include "cli/qr_output.h"

#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

namespace sorvane::cli {
namespace {

/// The largest there is, version 40.
constexpr std::size_t kMostModules = 177;
// Colours that no palette changes: 24-bit where the terminal knows them, else it goes by the plain ones before.
constexpr std::string_view kColours = "\033[30;107m\033[38;2;0;0;0;48;2;255;255;255m", kReset = "\033[0m\n";

}  // namespace

std::string qrText(const base::Json& rows) {
  const std::size_t width = rows.size();
  if (width == 0 || width > kMostModules) return {};
  for (const base::Json& row : rows) {
    if (!row.is_string() || row.get_ref<const std::string&>().size() != width) return {};
  }
  const auto isDark = [&](std::size_t x, std::size_t y) {
    const bool inside =
        x >= kQuietModules && y >= kQuietModules && x < width + kQuietModules && y < width + kQuietModules;
    return inside && rows[y - kQuietModules].get_ref<const std::string&>()[x - kQuietModules] == '1';
  };
  std::string text;
  for (std::size_t y = 0; y < width + 2 * kQuietModules; y += 2) {
    text += kColours;
    for (std::size_t x = 0; x < width + 2 * kQuietModules; ++x) {
      const bool upper = isDark(x, y), lower = isDark(x, y + 1);
      text += upper ? (lower ? "█" : "▀") : (lower ? "▄" : " ");
    }
    text += kReset;
  }
  return text;
}

}  // namespace sorvane::cli
