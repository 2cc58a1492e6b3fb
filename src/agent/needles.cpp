#include "agent/needles.h"

#include <algorithm>
#include <string>

#include "agent/masking.h"
#include "base/codec.h"
#include "base/json_writer.h"
#include "base/unicode.h"

namespace sorvane::agent {
namespace {

/// Collects needles and wipes what it was handed.
class Forms {
 public:
  void add(std::string_view text) {
    if (!text.empty()) needles_.emplace_back(text);
  }
  void take(std::string text) {
    add(text);
    base::wipe(text);
  }
  std::vector<base::SecretText> sorted() {
    const auto before = [](const base::SecretText& a, const base::SecretText& b) { return a.view() < b.view(); };
    const auto same = [](const base::SecretText& a, const base::SecretText& b) { return a.view() == b.view(); };
    std::sort(needles_.begin(), needles_.end(), before);
    needles_.erase(std::unique(needles_.begin(), needles_.end(), same), needles_.end());
    return std::move(needles_);
  }

 private:
  std::vector<base::SecretText> needles_;
};

/// The characters of the base64 of (`shift` unknown bytes + value + unknown bytes) that the value alone decides.
std::string alignedBase64(std::string_view value, std::size_t shift,
                          std::string (*encode)(std::span<const std::uint8_t>)) {
  std::string shifted(shift, '\0');
  shifted += value;
  std::string text = encode(base::bytesOf(shifted));
  base::wipe(shifted);
  const std::size_t first = (shift * 8 + 5) / 6;            // the first character without a bit of what comes before
  const std::size_t last = (shift + value.size()) * 8 / 6;  // behind the last one without a bit of what follows
  std::string core = text.substr(first, last - first);
  base::wipe(text);
  return core;
}

std::string replaced(std::string_view text, std::string_view from, std::string_view to) {
  std::string out;
  std::size_t start = 0;
  for (std::size_t at; (at = text.find(from, start)) != std::string_view::npos; start = at + from.size()) {
    out.append(text.substr(start, at - start)).append(to);
  }
  return out.append(text.substr(start));
}

/// The inside of a JSON string.
std::string jsonEscaped(std::string_view value) {
  base::SecretText out;
  base::appendJsonString(out, value);
  return std::string(out.view().substr(1, out.size() - 2));
}

/// `\u` and four hexadecimal digits in the place of every character outside ASCII, as writers that stay in ASCII put
/// it.
std::string asciiEscaped(std::string_view json) {
  static constexpr std::string_view kHex = "0123456789abcdef";
  std::string out;
  const auto unit = [&](char32_t c) {
    out += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4) out += kHex[c >> shift & 15];
  };
  while (!json.empty()) {
    const base::Decoded decoded = base::decodeUtf8(json);
    if (decoded.character < 0x80 || !decoded.valid) {
      out += json.substr(0, decoded.size);
    } else if (decoded.character < 0x10000) {
      unit(decoded.character);
    } else {
      unit(0xD800 + ((decoded.character - 0x10000) >> 10));
      unit(0xDC00 + ((decoded.character - 0x10000) & 0x3FF));
    }
    json.remove_prefix(decoded.size);
  }
  return out;
}

void addPercentForms(Forms& forms, std::string_view value) {
  const std::string upper = base::percentEncode(value);
  std::string lower = upper;
  for (std::size_t at = 0; (at = lower.find('%', at)) != std::string::npos; at += 3) {
    for (std::size_t i = at + 1; i <= at + 2; ++i) {
      if (lower[i] >= 'A' && lower[i] <= 'F') lower[i] = static_cast<char>(lower[i] - 'A' + 'a');
    }
  }
  forms.take(replaced(upper, "%20", "+"));
  // Many encoders leave the slash and the characters of a path as they are.
  forms.take(replaced(upper, "%2F", "/"));
  forms.take(lower);
  forms.take(upper);
}

void addLines(Forms& forms, std::string_view value) {
  std::vector<std::string_view> lines;
  for (std::size_t start = 0; start <= value.size();) {
    std::size_t end = value.find('\n', start);
    if (end == std::string_view::npos) end = value.size();
    std::string_view line = value.substr(start, end - start);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.size() >= Masker::kEncodedFormsFrom) lines.push_back(line);
    start = end + 1;
  }
  if (lines.size() < 2) return;
  for (const std::string_view line : lines) forms.add(line);
}

void addForms(Forms& forms, std::string_view value) {
  forms.add(value);
  if (value.size() < Masker::kEncodedFormsFrom) return;
  for (std::size_t shift = 0; shift < 3; ++shift) {
    forms.take(alignedBase64(value, shift, &base::base64));
    forms.take(alignedBase64(value, shift, &base::base64Url));
  }
  forms.take(base::hexLower(base::bytesOf(value)));
  forms.take(base::hexUpper(base::bytesOf(value)));
  addPercentForms(forms, value);
  const std::string json = jsonEscaped(value);
  forms.take(asciiEscaped(json));
  forms.take(replaced(json, "/", "\\/"));
  forms.take(json);
  // A terminal writes a line feed as carriage return and line feed; a shell drops what ends a line.
  forms.take(replaced(value, "\n", "\r\n"));
  if (const auto core = base::trimmed(value); core.size() >= Masker::kEncodedFormsFrom) forms.add(core);
  addLines(forms, value);
}

}  // namespace

std::vector<base::SecretText> needlesOf(std::span<const std::string_view> values) {
  Forms forms;
  for (const std::string_view value : values) addForms(forms, value);
  return forms.sorted();
}

}  // namespace sorvane::agent
