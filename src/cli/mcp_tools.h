#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "agent/protocol.h"
#include "base/error.h"
#include "base/json.h"
#include "base/json_writer.h"

namespace sorvane::cli::mcp {

/// One argument of a tool, and where it goes in the request to sorvaned.
struct Argument {
  enum class Kind { text, integer, flag, words };
  enum class Place { arg, value, environment, directory, taskSession, durationSeconds, payload };
  enum class Need { optional, required };
  const char* name;  ///< also the name in the payload
  Kind kind;
  Place place;
  Need need;
  const char* description;
};

/// How a successful answer is shown to the agent.
enum class Shape { environments, secrets, run, session, sessions, usage, sentence, report, clipboard, value, pending };

/// One tool. `op` is absent for the one that is answered here.
struct Tool {
  const char* name;
  const char* title;
  const char* description;
  std::optional<agent::AgentOp> op;
  Shape shape;
  bool readOnly;
  bool destructive;
  bool idempotent;
  std::span<const Argument> arguments;
};

/// Whether the agent's connection may be offered raw values.
enum class Reveal { hidden, offered };

/// Every tool, in the order of the list.
std::span<const Tool> allTools();
bool isListed(const Tool& tool, Reveal reveal);
/// nullptr when there is none, or when it is not listed.
const Tool* toolNamed(std::string_view name, Reveal reveal);
/// Writes the tool as tools/list shows it.
void describeTool(base::JsonWriter& out, const Tool& tool);

/// ArgumentError is a call whose arguments do not fit the tool; the sentence is for the agent and holds no value.
class ArgumentError : public base::Error {
 public:
  using Error::Error;
};

/// The request that a call makes, without token and requestor. Throws ArgumentError.
agent::AgentRequest requestOf(const Tool& tool, const base::Json& arguments);
/// Checks the arguments alone. Throws ArgumentError.
void checkArguments(const Tool& tool, const base::Json& arguments);

/// Writes the members of a tool's result ("content", "structuredContent", "isError") into an open object. A refusal
/// becomes its sentence with its code.
void writeToolResult(base::JsonWriter& out, Shape shape, const agent::AgentResponse& response);
/// The same for a call that has no answer yet.
void writePending(base::JsonWriter& out, std::string_view pendingId);

}  // namespace sorvane::cli::mcp
