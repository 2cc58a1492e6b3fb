#include "vault/env_export.h"

#include <map>

#include "base/json_writer.h"
#include "vault/env_value.h"

namespace sorvane::vault {
namespace {

struct Assignment {
  std::string_view name;
  base::SecretText value;
};

/// nullopt for a comment and for a line that assigns nothing.
std::optional<Assignment> assignmentOf(std::string_view line) {
  const std::size_t equals = line.find('=');
  if (line.starts_with('#') || equals == std::string_view::npos) return std::nullopt;
  return Assignment{line.substr(0, equals), envLineValue(line.substr(equals + 1))};
}

base::SecretText asJson(std::span<const base::SecretText> lines) {
  std::map<std::string, base::SecretText> sorted;
  for (const base::SecretText& line : lines) {
    if (auto assignment = assignmentOf(line.view())) {
      sorted.insert_or_assign(std::string(assignment->name), std::move(assignment->value));
    }
  }
  base::JsonWriter out(base::JsonWriter::Style::pretty);
  out.beginObject();
  for (const auto& [name, value] : sorted) out.field(name, value.view());
  out.endObject();
  return out.take();
}

void appendShell(base::SecretText& out, const Assignment& assignment) {
  out.append("export ");
  out.append(assignment.name);
  out.append("='");
  for (const char c : assignment.value.view()) {
    if (c == '\'') {
      out.append("'\\''");
    } else {
      out.push_back(c);
    }
  }
  out.append("'\n");
}

}  // namespace

std::string_view word(EnvExportFormat format) {
  switch (format) {
    case EnvExportFormat::env:
      return "env";
    case EnvExportFormat::json:
      return "json";
    case EnvExportFormat::shell:
      return "shell";
  }
  return "env";
}

std::optional<EnvExportFormat> envExportFormatOf(std::string_view text) {
  for (const auto format : {EnvExportFormat::env, EnvExportFormat::json, EnvExportFormat::shell}) {
    if (word(format) == text) return format;
  }
  return std::nullopt;
}

base::SecretText convertLines(std::span<const base::SecretText> lines, EnvExportFormat format) {
  if (format == EnvExportFormat::json) return asJson(lines);
  base::SecretText out;
  for (const base::SecretText& line : lines) {
    if (format == EnvExportFormat::env) {
      out.append(line.view());
      out.push_back('\n');
    } else if (const auto assignment = assignmentOf(line.view())) {
      appendShell(out, *assignment);
    }
  }
  return out;
}

}  // namespace sorvane::vault
