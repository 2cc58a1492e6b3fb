#pragma once

#include <optional>
#include <string>
#include <variant>

#include "vault/store_record.h"

namespace sorvane::app {

/// What `sorvaned` was started with. Nothing here answers a question in the owner's place.
struct Options {
  std::optional<std::string> supportFolder;
  std::optional<vault::StoreKind> store;
};

/// The options, or the exit code when the command line was answered or refused right away.
std::variant<Options, int> parseOptions(int argc, char** argv);

}  // namespace sorvane::app
