#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string_view>

#include "base/descriptor.h"

namespace sorvane::proxy {

/// A ledger opened for reading, as far as it had grown then. What is added later is not read, and a file that is put in
/// its place does not touch it.
struct OpenLedger {
  base::Descriptor file;  ///< none: there is no file yet
  std::uint64_t size = 0;
};

/// Opens the file; follows no link. Throws base::FileError unless it is a regular file of this user; one that others
/// may read is made private first.
OpenLedger openLedger(const std::filesystem::path& path);

/// A line that is longer than this is none of ours; what is behind is left out of it.
inline constexpr std::size_t kMostLineBytes = 65'536;

/// Calls `take` with each line, without its line feed, in pieces of bounded memory. A last line without a line feed is
/// taken too. Throws base::FileError.
void eachLine(const OpenLedger& ledger, const std::function<void(std::string_view)>& take);

}  // namespace sorvane::proxy
