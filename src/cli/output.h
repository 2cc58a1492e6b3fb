#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "base/secret_text.h"

namespace sorvane::cli {

/// Writes everything to standard output; a closed pipe ends the program quietly.
void print(std::string_view text);
void printLine(std::string_view text);
/// A sentence for the person, on standard error, escaped: names in it may be another program's words.
void note(std::string_view text);

/// One JSON document on standard output.
void printJson(const base::Json& document);

/// Rows under their headings, columns aligned by display width, cells escaped. The last column is not padded.
void printTable(const std::vector<std::string>& headings, const std::vector<std::vector<std::string>>& rows);

/// Text of a field for a cell; "" when it is absent. Lists are joined with ", ".
std::string cell(const base::Json& object, const char* name);
/// The items of a list in a document; throws Failure when there is no such list.
const base::Json& items(const base::Json& document, const char* name);

/// A value for the person: to standard output as it stands, with a line feed when that is a terminal.
void printValue(const base::SecretText& value);

}  // namespace sorvane::cli
