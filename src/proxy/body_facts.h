#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "proxy/body_reader.h"
#include "proxy/refusal.h"
#include "proxy/route.h"

namespace sorvane::proxy {

/// A value's bytes in the body.
struct BodySpan {
  std::size_t begin = 0, end = 0;
};

/// BodyFacts is what a body says about its cost.
struct BodyFacts {
  std::optional<std::string> model;
  bool streamed = false;
  std::optional<std::int64_t> mostOutput;  ///< the largest of the limits that the body sets
  std::int64_t choices = 1;

  // Input beyond the body's own text.
  bool outside = false;        ///< something that is not in the body: an earlier answer, a file, an address
  std::int64_t images = 0;     ///< in the body or by address
  bool file = false;           ///< a message carries a file
  std::size_t imageBytes = 0;  ///< of their data, which is no text
  bool cacheControl = false, timeToLive = false;

  // Output beyond what the body's limit says.
  bool compaction = false;
  bool prediction = false;

  std::optional<std::string> serviceTier, speed, region;
  enum class Thinking { unsaid, off, on };
  Thinking thinking = Thinking::unsaid;  ///< on where one field says on and another off

  // Where a request for usage goes.
  std::size_t firstMember = 0;            ///< behind the outermost brace
  std::optional<BodySpan> streamOptions;  ///< whole value
  bool streamOptionsIsObject = false, streamOptionsIsEmpty = true;
  std::optional<BodySpan> includeUsage;  ///< whole value inside the stream options
  bool asksForUsage = false;
  bool hasUsageField = false;

  // The first of each that was met, in the order of the body.
  std::optional<std::string> unsupported;  ///< what cannot be priced, as it is named in a sentence
  std::optional<std::string> malformed;    ///< the field that has another type than the operation takes
  std::optional<std::string> unknownField;

  void unsupport(std::string what) {
    if (!unsupported) unsupported = std::move(what);
  }
  void think(bool on) { thinking = on || thinking == Thinking::on ? Thinking::on : Thinking::off; }
  void misshape(std::string_view field) {
    if (!malformed) malformed = std::string(field);
  }
};

/// Reads a body by the table of its operation.
BodyFacts factsOf(const ProxyRoute& route, BodyReader& reader);

/// Reads what a model is given: messages, system texts, items; the reader stands before the value.
void readAnthropicInput(BodyReader& reader, BodyFacts& facts);
void readOpenAiInput(BodyReader& reader, BodyFacts& facts);
void readResponsesInput(BodyReader& reader, BodyFacts& facts);

/// A client's word inside a sentence: at most 64 characters, nothing that a terminal obeys.
std::string shownWord(std::string_view word);

}  // namespace sorvane::proxy
