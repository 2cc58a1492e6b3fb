// Every field of every operation that is known to cost more than its bytes, or known not to. There is no other check.
#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "proxy/body_facts.h"

namespace sorvane::proxy {
namespace {

using Kind = BodyReader::Kind;
/// Takes the value of one field.
using Take = void (*)(BodyReader& reader, BodyFacts& facts, std::string_view field);
struct Field {
  std::string_view name;
  Take take;
};

/// null says the same as leaving the field out.
bool takeNull(BodyReader& reader) {
  if (reader.kind() != Kind::null) return false;
  reader.skip();
  return true;
}

void plain(BodyReader& reader, BodyFacts&, std::string_view) {
  reader.skip();
}
void refused(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  if (takeNull(reader)) return;
  facts.unsupport("the field `" + std::string(field) + "`");
  reader.skip();
}
/// Refused unless it is false, or an empty list.
void refusedIfAny(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  if (takeNull(reader)) return;
  bool any = true;
  if (reader.kind() == Kind::array) {
    any = false;
    reader.array([&] {
      any = true;
      reader.skip();
    });
  } else {
    any = reader.boolean().value_or(true);
  }
  if (any) facts.unsupport("the field `" + std::string(field) + "`");
}
void outside(BodyReader& reader, BodyFacts& facts, std::string_view) {
  if (takeNull(reader)) return;
  facts.outside = true;
  reader.skip();
}

void text(BodyReader& reader, BodyFacts& facts, std::string_view field, std::optional<std::string>& out) {
  if (takeNull(reader)) return;
  out = reader.string();
  if (!out) facts.misshape(field);
}
void model(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  text(reader, facts, field, facts.model);
}
void serviceTier(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  text(reader, facts, field, facts.serviceTier);
}
void speed(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  text(reader, facts, field, facts.speed);
}
void region(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  text(reader, facts, field, facts.region);
}

void stream(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  if (takeNull(reader)) return;
  const auto value = reader.boolean();
  if (!value) return facts.misshape(field);
  facts.streamed = *value;
}

void mostOutput(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  if (takeNull(reader)) return;
  const auto value = reader.integer();
  if (!value || *value < 0) return facts.misshape(field);
  facts.mostOutput = std::max(*value, facts.mostOutput.value_or(0));
}

void choices(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  if (takeNull(reader)) return;
  const auto value = reader.integer();
  if (!value || *value < 1) return facts.misshape(field);
  facts.choices = std::max(*value, facts.choices);
}

void prediction(BodyReader& reader, BodyFacts& facts, std::string_view) {
  facts.prediction = facts.prediction || reader.kind() != Kind::null;
  reader.skip();
}

void modalities(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  if (takeNull(reader)) return;
  if (reader.kind() != Kind::array) facts.misshape(field);
  reader.array([&] {
    if (reader.string().value_or("") != "text") facts.unsupport("an answer that is not text");
  });
}

void thinking(BodyReader& reader, BodyFacts& facts, std::string_view) {
  if (takeNull(reader)) return;
  bool on = true;
  reader.object([&](std::string_view key) {
    if (key != "type") return reader.skip();
    on = reader.string().value_or("") != "disabled";
  });
  facts.think(on);
}

void effort(BodyReader& reader, BodyFacts& facts, std::string_view) {
  if (takeNull(reader)) return;
  facts.think(reader.string().value_or("") != "none");
}

void reasoning(BodyReader& reader, BodyFacts& facts, std::string_view) {
  if (takeNull(reader)) return;
  bool on = true;
  reader.object([&](std::string_view key) {
    if (key != "effort") return reader.skip();
    on = reader.string().value_or("") != "none";
  });
  facts.think(on);
}

/// Compaction is told by the type of an edit, which begins with "compact" in every version.
void contextManagement(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  if (takeNull(reader)) return;
  const auto edit = [&](std::string_view key) {
    if (key == "type") {
      if (reader.string().value_or("").starts_with("compact")) facts.compaction = true;
    } else if (key == "edits") {
      contextManagement(reader, facts, field);
    } else {
      reader.skip();
    }
  };
  if (reader.kind() == Kind::array) return reader.array([&] { reader.object(edit); });
  reader.object(edit);
}

void streamOptions(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  BodySpan span{reader.position(), 0};
  facts.streamOptionsIsObject = reader.kind() == Kind::object;
  if (!facts.streamOptionsIsObject && reader.kind() != Kind::null) facts.misshape(field);
  reader.object([&](std::string_view key) {
    facts.streamOptionsIsEmpty = false;
    if (key != "include_usage") return reader.skip();
    BodySpan value{reader.position(), 0};
    if (!takeNull(reader)) {
      const auto asked = reader.boolean();
      if (!asked) facts.misshape("stream_options.include_usage");
      facts.asksForUsage = asked.value_or(false);
    }
    value.end = reader.consumed();
    facts.includeUsage = value;
  });
  span.end = reader.consumed();
  facts.streamOptions = span;
}

/// Anything but "in_memory" is kept longer, at the dearer rate where there is one.
void retention(BodyReader& reader, BodyFacts& facts, std::string_view) {
  if (takeNull(reader)) return;
  facts.timeToLive = reader.string().value_or("") != "in_memory" || facts.timeToLive;
}

/// Without the cost that the answer tells, a call is only known by the book.
void usageField(BodyReader& reader, BodyFacts& facts, std::string_view) {
  facts.hasUsageField = true;
  bool included = false;
  reader.object([&](std::string_view key) {
    if (key != "include") return reader.skip();
    included = reader.boolean().value_or(false);
  });
  if (!included) facts.unsupport("the field `usage` without `include` set to true");
}

/// Passes only what chooses among hosts without a word about their prices.
void routing(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  if (takeNull(reader)) return;
  constexpr std::array<std::string_view, 3> kHarmless{"data_collection", "require_parameters", "zdr"};
  if (reader.kind() != Kind::object) facts.misshape(field);
  reader.object([&](std::string_view key) {
    if (takeNull(reader)) return;
    const auto value = reader.boolean();
    const bool harmless = key == "allow_fallbacks"
                              ? value == false
                              : std::find(kHarmless.begin(), kHarmless.end(), key) != kHarmless.end();
    if (!harmless) facts.unsupport("the field `provider." + shownWord(key) + "`");
  });
}

/// Tools that the client itself runs; every other runs at the provider's, at a price of its own.
bool isAnthropicClientTool(std::string_view type) {
  constexpr std::array<std::string_view, 4> beginnings{"bash_", "text_editor_", "computer_", "memory_"};
  return type == "custom" || std::any_of(beginnings.begin(), beginnings.end(),
                                         [&](std::string_view beginning) { return type.starts_with(beginning); });
}
bool isOpenAiClientTool(std::string_view type) {
  constexpr std::array<std::string_view, 6> types{"function",    "custom",   "local_shell",
                                                  "apply_patch", "computer", "computer_use_preview"};
  return std::find(types.begin(), types.end(), type) != types.end();
}

void readTools(BodyReader& reader, BodyFacts& facts, std::string_view field, std::string_view without,
               bool (*isClientTool)(std::string_view)) {
  if (takeNull(reader)) return;
  if (reader.kind() != Kind::array) facts.misshape(field);
  reader.array([&] {
    std::string type(without);
    reader.object([&](std::string_view key) {
      if (key != "type") return reader.skip();
      if (!takeNull(reader)) type = reader.string().value_or("");
    });
    if (!isClientTool(type)) facts.unsupport("a tool of the type \"" + shownWord(type) + "\"");
  });
}
void anthropicTools(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  readTools(reader, facts, field, "custom", &isAnthropicClientTool);
}
void openAiTools(BodyReader& reader, BodyFacts& facts, std::string_view field) {
  readTools(reader, facts, field, "", &isOpenAiClientTool);
}

void anthropicInput(BodyReader& reader, BodyFacts& facts, std::string_view) {
  readAnthropicInput(reader, facts);
}
void chatInput(BodyReader& reader, BodyFacts& facts, std::string_view) {
  readOpenAiInput(reader, facts);
}
void responsesInput(BodyReader& reader, BodyFacts& facts, std::string_view) {
  readResponsesInput(reader, facts);
}

constexpr std::array kMessagesFields{
    Field{"model", model},
    Field{"messages", anthropicInput},
    Field{"system", anthropicInput},
    Field{"max_tokens", mostOutput},
    Field{"stream", stream},
    Field{"tools", anthropicTools},
    Field{"tool_choice", plain},
    Field{"thinking", thinking},
    Field{"service_tier", serviceTier},
    Field{"speed", speed},
    Field{"inference_geo", region},
    Field{"context_management", contextManagement},
    Field{"cache_control", plain},
    Field{"metadata", plain},
    Field{"stop_sequences", plain},
    Field{"temperature", plain},
    Field{"top_p", plain},
    Field{"top_k", plain},
    Field{"output_config", plain},
    Field{"output_format", plain},
    Field{"betas", plain},
    Field{"mcp_servers", refusedIfAny},
    Field{"container", refused},
    Field{"fallbacks", refusedIfAny},
    Field{"fallback_model", refused},
    Field{"fallback_models", refusedIfAny},
};
constexpr std::array kChatFields{
    Field{"model", model},
    Field{"messages", chatInput},
    Field{"max_completion_tokens", mostOutput},
    Field{"max_tokens", mostOutput},
    Field{"n", choices},
    Field{"best_of", choices},
    Field{"stream", stream},
    Field{"stream_options", streamOptions},
    Field{"tools", openAiTools},
    Field{"tool_choice", plain},
    Field{"parallel_tool_calls", plain},
    Field{"functions", plain},
    Field{"function_call", plain},
    Field{"service_tier", serviceTier},
    Field{"reasoning_effort", effort},
    Field{"prediction", prediction},
    Field{"modalities", modalities},
    Field{"audio", refused},
    Field{"web_search_options", refused},
    Field{"background", refusedIfAny},
    Field{"frequency_penalty", plain},
    Field{"presence_penalty", plain},
    Field{"logit_bias", plain},
    Field{"logprobs", plain},
    Field{"top_logprobs", plain},
    Field{"metadata", plain},
    Field{"response_format", plain},
    Field{"safety_identifier", plain},
    Field{"prompt_cache_key", plain},
    Field{"prompt_cache_retention", retention},
    Field{"seed", plain},
    Field{"stop", plain},
    Field{"store", plain},
    Field{"temperature", plain},
    Field{"top_p", plain},
    Field{"user", plain},
    Field{"verbosity", plain},
};
/// Beside those of chat completions.
constexpr std::array kOpenRouterFields{
    Field{"models", refusedIfAny},  Field{"plugins", refusedIfAny}, Field{"preset", refused},
    Field{"usage", usageField},     Field{"reasoning", reasoning},  Field{"include_reasoning", plain},
    Field{"image_config", refused}, Field{"route", refused},        Field{"provider", routing},
    Field{"transforms", plain},     Field{"session_id", plain},     Field{"top_k", plain},
    Field{"min_p", plain},          Field{"top_a", plain},          Field{"repetition_penalty", plain},
    Field{"cache_control", plain},
};
constexpr std::array kResponsesFields{
    Field{"model", model},
    Field{"input", responsesInput},
    Field{"instructions", responsesInput},
    Field{"max_output_tokens", mostOutput},
    Field{"stream", stream},
    Field{"stream_options", plain},
    Field{"tools", openAiTools},
    Field{"tool_choice", plain},
    Field{"parallel_tool_calls", plain},
    Field{"max_tool_calls", plain},
    Field{"service_tier", serviceTier},
    Field{"reasoning", reasoning},
    Field{"background", refusedIfAny},
    Field{"previous_response_id", outside},
    Field{"conversation", outside},
    Field{"prompt", refused},
    Field{"context_management", contextManagement},
    Field{"include", plain},
    Field{"metadata", plain},
    Field{"prompt_cache_key", plain},
    Field{"prompt_cache_retention", retention},
    Field{"safety_identifier", plain},
    Field{"store", plain},
    Field{"temperature", plain},
    Field{"text", plain},
    Field{"top_logprobs", plain},
    Field{"top_p", plain},
    Field{"truncation", plain},
    Field{"user", plain},
};
constexpr std::array kEmbeddingsFields{
    Field{"model", model},      Field{"input", plain}, Field{"encoding_format", plain},
    Field{"dimensions", plain}, Field{"user", plain},
};

std::span<const Field> fieldsOf(ProxyOperation operation) {
  switch (operation) {
    case ProxyOperation::messages:
      return kMessagesFields;
    case ProxyOperation::chatCompletions:
      return kChatFields;
    case ProxyOperation::responses:
      return kResponsesFields;
    case ProxyOperation::embeddings:
      return kEmbeddingsFields;
  }
  return {};
}

Take takeOf(std::span<const Field> fields, std::string_view name) {
  const auto found = std::find_if(fields.begin(), fields.end(), [&](const Field& field) { return field.name == name; });
  return found == fields.end() ? nullptr : found->take;
}

}  // namespace

BodyFacts factsOf(const ProxyRoute& route, BodyReader& reader) {
  BodyFacts facts;
  const std::span<const Field> fields = fieldsOf(route.operation);
  facts.firstMember = reader.position() + 1;
  if (reader.kind() != Kind::object) facts.misshape("");
  reader.object([&](std::string_view name) {
    Take take = takeOf(fields, name);
    if (take == nullptr && route.provider == ProxyProvider::openrouter) take = takeOf(kOpenRouterFields, name);
    if (take != nullptr) return take(reader, facts, name);
    if (!facts.unknownField) facts.unknownField = std::string(name);
    reader.skip();
  });
  if (route.provider == ProxyProvider::openrouter) {
    // Which host answers is not known here, nor what it makes of a word that turns thinking off or of a file.
    if (facts.thinking == BodyFacts::Thinking::off) facts.think(true);
    if (facts.file) facts.unsupport("content of the type \"file\"");
  }
  facts.cacheControl = reader.metCacheControl();
  facts.timeToLive = facts.timeToLive || reader.metTimeToLive();
  return facts;
}

}  // namespace sorvane::proxy
