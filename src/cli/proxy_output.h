#pragma once

#include <string>

#include "base/json.h"
#include "base/secret_text.h"

namespace sorvane::cli {

// How the documents of the proxy's actions are shown to a person.

void printProxyStatus(const base::Json& document);
void printProxyLimits(const base::Json& document);
/// The calls, or with `by` ("day", "client", "environment", "model") what they came to.
void printProxyCalls(const base::Json& document, const std::string& by);
void printProxyPrices(const base::Json& document);

/// The date that is meant by "2026-11-21", "2026-11-21T10:00:00Z" or "7d" (ago), as ISO 8601. Throws Failure.
std::string dateIn(const std::string& text);
/// A file's text, or that of standard input for "-". Throws Failure.
base::SecretText textOfFile(const std::string& file);

}  // namespace sorvane::cli
