#include "cli/mcp_frame.h"

#include <algorithm>

namespace sorvane::cli::mcp {
namespace {

Frame refused(int code, std::string problem, base::Json id = nullptr) {
  Frame frame;
  frame.errorCode = code;
  frame.problem = std::move(problem);
  frame.id = std::move(id);
  return frame;
}

bool isId(const base::Json& id) {
  return id.is_string() || id.is_number_integer();
}

bool isAnswer(const base::Json& message) {
  return !message.contains("method") && (message.contains("result") || message.contains("error"));
}

/// What keeps the object from being a message; null when nothing does.
const char* problemOf(const base::Json& message) {
  const auto version = message.find("jsonrpc");
  if (version == message.end() || *version != "2.0") return "The message does not say \"jsonrpc\":\"2.0\".";
  const auto params = message.find("params");
  if (params != message.end() && !params->is_object()) return "The parameters are not a JSON object.";
  if (isAnswer(message)) return nullptr;
  const auto method = message.find("method");
  if (method == message.end() || !method->is_string()) return "The message names no method.";
  const auto id = message.find("id");
  if (id != message.end() && !isId(*id)) return "The id is neither a text nor an integer.";
  return nullptr;
}

}  // namespace

std::optional<LineDecoder::Line> LineDecoder::take(std::string_view& bytes) {
  const std::size_t end = bytes.find('\n');
  const std::string_view piece = bytes.substr(0, end);
  bytes.remove_prefix(end == std::string_view::npos ? bytes.size() : end + 1);
  if (!line_.tooLong && piece.size() > limit_ - line_.text.size()) {
    line_.tooLong = true;
    line_.text = base::SecretText();
  }
  if (!line_.tooLong) line_.text.append(piece);
  if (end == std::string_view::npos) return std::nullopt;
  return std::exchange(line_, Line());
}

Frame decodeFrame(std::string_view line) {
  auto json = base::parseJson(line);
  if (!json) return refused(kParseError, "The line is not one JSON text.");
  if (json->is_array()) {
    wipeTexts(*json);
    return refused(kInvalidRequest, "Batches are not served. Send one message a line.");
  }
  if (!json->is_object()) return refused(kInvalidRequest, "The message is not a JSON object.");
  Frame frame;
  if (const auto id = json->find("id"); id != json->end() && isId(*id)) frame.id = *id;
  if (const char* const problem = problemOf(*json)) {
    wipeTexts(*json);
    return refused(kInvalidRequest, problem, std::move(frame.id));
  }
  if (const auto params = json->find("params"); params != json->end()) frame.params = std::move(*params);
  if (isAnswer(*json)) {
    frame.kind = Frame::Kind::response;
    return frame;
  }
  frame.method = (*json)["method"].get<std::string>();
  frame.kind = json->contains("id") ? Frame::Kind::request : Frame::Kind::notification;
  return frame;
}

void wipeTexts(base::Json& json) noexcept {
  if (json.is_string()) return base::wipe(json.get_ref<std::string&>());
  if (!json.is_structured()) return;
  for (base::Json& item : json) wipeTexts(item);
}

}  // namespace sorvane::cli::mcp
