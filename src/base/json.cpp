#include "base/json.h"

#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

namespace sorvane::base {
namespace {

/// Watches the parser's events: refuses depth and duplicate keys before a value is built from them.
class StrictCheck : public nlohmann::json_sax<Json> {
 public:
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override {
    keys_.emplace_back();
    return ++depth_ <= kMaxJsonDepth;
  }
  bool key(string_t& name) override { return keys_.back().insert(name).second; }
  bool end_object() override {
    keys_.pop_back();
    --depth_;
    return true;
  }
  bool start_array(std::size_t) override { return ++depth_ <= kMaxJsonDepth; }
  bool end_array() override {
    --depth_;
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

 private:
  int depth_ = 0;
  std::vector<std::set<std::string>> keys_;
};

}  // namespace

std::optional<Json> parseJson(std::string_view text) {
  // The parser takes a NUL byte for the end of the text and would pass over what follows.
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
  // It also skips a byte-order mark, which RFC 8259 (section 8.1) lets a reader refuse.
  if (text.starts_with("\xEF\xBB\xBF")) return std::nullopt;
  StrictCheck check;
  if (!Json::sax_parse(text.begin(), text.end(), &check)) return std::nullopt;
  Json value = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

}  // namespace sorvane::base
