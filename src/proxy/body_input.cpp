// What the input of a call counts: text by its bytes, images in the body by the provider's bound, and everything that
// is not in the body as all that the model can take in.
#include <algorithm>
#include <array>

#include "proxy/body_facts.h"

namespace sorvane::proxy {
namespace {

/// How a block of content counts.
enum class Counts {
  text,      ///< its bytes
  image,     ///< the bound of an image; by address as outside too
  document,  ///< in the body as text: its bytes; else as outside, since pages are read as images too
  file,      ///< as outside
  outside,
  refused
};
struct BlockKind {
  std::string_view type;
  Counts counts;
};

// A type in no table is counted as outside: what it brings in is not known.
constexpr std::array kAnthropicBlocks{
    BlockKind{"text", Counts::text},
    BlockKind{"image", Counts::image},
    BlockKind{"document", Counts::document},
    BlockKind{"tool_use", Counts::text},
    BlockKind{"tool_result", Counts::text},
    BlockKind{"thinking", Counts::text},
    BlockKind{"redacted_thinking", Counts::text},
    BlockKind{"search_result", Counts::text},
    BlockKind{"tool_reference", Counts::text},
    BlockKind{"compaction", Counts::text},
    BlockKind{"server_tool_use", Counts::text},
    BlockKind{"web_search_tool_result", Counts::text},
    BlockKind{"web_search_result", Counts::text},
    BlockKind{"container_upload", Counts::refused},
};
constexpr std::array kOpenAiBlocks{
    BlockKind{"text", Counts::text}, BlockKind{"refusal", Counts::text},        BlockKind{"image_url", Counts::image},
    BlockKind{"file", Counts::file}, BlockKind{"input_audio", Counts::refused},
};
constexpr std::array kResponsesBlocks{
    BlockKind{"message", Counts::text},          BlockKind{"input_text", Counts::text},
    BlockKind{"output_text", Counts::text},      BlockKind{"text", Counts::text},
    BlockKind{"summary_text", Counts::text},     BlockKind{"reasoning_text", Counts::text},
    BlockKind{"refusal", Counts::text},          BlockKind{"reasoning", Counts::text},
    BlockKind{"function_call", Counts::text},    BlockKind{"function_call_output", Counts::text},
    BlockKind{"custom_tool_call", Counts::text}, BlockKind{"custom_tool_call_output", Counts::text},
    BlockKind{"local_shell_call", Counts::text}, BlockKind{"local_shell_call_output", Counts::text},
    BlockKind{"shell_call", Counts::text},       BlockKind{"shell_call_output", Counts::text},
    BlockKind{"apply_patch_call", Counts::text}, BlockKind{"apply_patch_call_output", Counts::text},
    BlockKind{"computer_call", Counts::text},    BlockKind{"computer_call_output", Counts::text},
    BlockKind{"input_image", Counts::image},     BlockKind{"computer_screenshot", Counts::image},
    BlockKind{"input_file", Counts::outside},    BlockKind{"item_reference", Counts::outside},
    BlockKind{"input_audio", Counts::refused},
};

/// What one block says about itself.
struct Block {
  std::optional<std::string> type;
  bool hasRole = false;
  bool inBody = false;        ///< a source that is bytes of this body
  bool isText = false;        ///< a source that is text
  std::size_t dataBytes = 0;  ///< of the image's data
};

template <std::size_t N>
Counts countsOf(const std::array<BlockKind, N>& kinds, std::string_view type) {
  const auto found = std::find_if(kinds.begin(), kinds.end(), [&](const BlockKind& kind) { return kind.type == type; });
  return found == kinds.end() ? Counts::outside : found->counts;
}

void count(Counts counts, const Block& block, BodyFacts& facts) {
  switch (counts) {
    case Counts::text:
      return;
    case Counts::image:
      ++facts.images;
      if (block.inBody) {
        facts.imageBytes += block.dataBytes;
      } else {
        facts.outside = true;
      }
      return;
    case Counts::document:
      facts.outside = facts.outside || !block.isText;
      return;
    case Counts::file:
      facts.file = true;
      facts.outside = true;
      return;
    case Counts::outside:
      facts.outside = true;
      return;
    case Counts::refused:
      return facts.unsupport("content of the type \"" + shownWord(*block.type) + "\"");
  }
}

/// A "data:image/" address holds the image itself.
void readAddress(BodyReader& reader, Block& block) {
  if (const auto address = reader.rawString(); address && address->starts_with("data:image/")) {
    block.inBody = true;
    block.dataBytes += address->size();
  }
}

void readAnthropicSource(BodyReader& reader, Block& block, BodyFacts& facts) {
  std::size_t data = 0;
  reader.object([&](std::string_view key) {
    if (key == "type") {
      const auto type = reader.string().value_or("");
      block.inBody = type == "base64";
      block.isText = type == "text" || type == "content";
    } else if (key == "data") {
      data = reader.rawString().value_or("").size();
    } else if (key == "content") {
      readAnthropicInput(reader, facts);
    } else {
      reader.skip();
    }
  });
  if (block.inBody) block.dataBytes = data;
}

void readAnthropicBlock(BodyReader& reader, BodyFacts& facts) {
  Block block;
  reader.object([&](std::string_view key) {
    if (key == "type") {
      block.type = reader.string();
    } else if (key == "role") {
      block.hasRole = true;
      reader.skip();
    } else if (key == "content") {
      readAnthropicInput(reader, facts);
    } else if (key == "source" && reader.kind() == BodyReader::Kind::object) {
      readAnthropicSource(reader, block, facts);
    } else {
      reader.skip();
    }
  });
  if (block.hasRole && !block.type) return;
  count(block.type ? countsOf(kAnthropicBlocks, *block.type) : Counts::outside, block, facts);
}

/// One message, item or part of OpenAI's forms; `read` is for what is nested in it.
template <std::size_t N>
void readOpenAiBlock(const std::array<BlockKind, N>& kinds, void (*read)(BodyReader&, BodyFacts&), BodyReader& reader,
                     BodyFacts& facts) {
  Block block;
  bool fileId = false, id = false, encrypted = false;
  reader.object([&](std::string_view key) {
    if (key == "type") {
      block.type = reader.string();
    } else if (key == "role") {
      block.hasRole = true;
      reader.skip();
    } else if (key == "content" || key == "output") {
      read(reader, facts);
    } else if (key == "image_url" && reader.kind() == BodyReader::Kind::object) {
      reader.object([&](std::string_view inner) { inner == "url" ? readAddress(reader, block) : reader.skip(); });
    } else if (key == "image_url") {
      readAddress(reader, block);
    } else if (key == "audio" && reader.kind() != BodyReader::Kind::null) {
      facts.unsupport("audio");
      reader.skip();
    } else if (key == "file_id") {
      fileId = fileId || reader.kind() != BodyReader::Kind::null;
      reader.skip();
    } else if (key == "id") {
      id = reader.kind() != BodyReader::Kind::null;
      reader.skip();
    } else if (key == "encrypted_content") {
      encrypted = reader.kind() != BodyReader::Kind::null;
      reader.skip();
    } else {
      reader.skip();
    }
  });
  // Reasoning that is only named is looked up by the provider.
  const bool looksUp = block.type == "reasoning" && id && !encrypted;
  if (fileId || looksUp) facts.outside = true;
  if (block.hasRole && !block.type) return;
  count(block.type ? countsOf(kinds, *block.type) : Counts::outside, block, facts);
}

/// A text, one block, or a list of blocks.
template <typename One>
void readBlocks(BodyReader& reader, const One& one) {
  switch (reader.kind()) {
    case BodyReader::Kind::object:
      return one();
    case BodyReader::Kind::array:
      return reader.array([&] { reader.kind() == BodyReader::Kind::object ? one() : reader.skip(); });
    case BodyReader::Kind::string:
    case BodyReader::Kind::number:
    case BodyReader::Kind::boolean:
    case BodyReader::Kind::null:
    case BodyReader::Kind::nothing:
      return reader.skip();
  }
}

}  // namespace

void readAnthropicInput(BodyReader& reader, BodyFacts& facts) {
  readBlocks(reader, [&] { readAnthropicBlock(reader, facts); });
}

void readOpenAiInput(BodyReader& reader, BodyFacts& facts) {
  readBlocks(reader, [&] { readOpenAiBlock(kOpenAiBlocks, &readOpenAiInput, reader, facts); });
}

void readResponsesInput(BodyReader& reader, BodyFacts& facts) {
  readBlocks(reader, [&] { readOpenAiBlock(kResponsesBlocks, &readResponsesInput, reader, facts); });
}

}  // namespace sorvane::proxy
