#include "app/qr_code.h"

#include <qrencode.h>

#include <memory>

namespace sorvane::app {

std::vector<std::string> qrCode(std::string_view text) {
  const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
      QRcode_encodeString8bit(std::string(text).c_str(), 0, QR_ECLEVEL_L), QRcode_free);
  std::vector<std::string> rows;
  if (!code) return rows;
  const auto width = static_cast<std::size_t>(code->width);
  for (std::size_t y = 0; y < width; ++y) {
    std::string row;
    for (std::size_t x = 0; x < width; ++x) row += (code->data[y * width + x] & 1) != 0 ? '1' : '0';
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace sorvane::app
