#include "cli/backup_key.h"

#include <unistd.h>

#include "base/files.h"
#include "base/unicode.h"
#include "cli/confirmation.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

constexpr int kTries = 3;

/// Upper case, letters and digits only: what was typed, whichever way it was written.
std::string bare(std::string_view text) {
  std::string kept;
  for (const char c : text) {
    if (c >= 'a' && c <= 'z') kept += static_cast<char>(c - 'a' + 'A');
    if ((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) kept += c;
  }
  return kept;
}

std::string lastGroup(const base::SecretText& key) {
  const std::string_view text = key.view();
  const std::size_t dash = text.rfind('-');
  return bare(dash == std::string_view::npos ? text : text.substr(dash + 1));
}

base::SecretText page(const base::SecretText& key, const std::string& file) {
  base::SecretText text("sorvane recovery key\n====================\n\n    ");
  text.append(key.view());
  text.append("\n\nIt opens this backup alone:\n\n    ");
  text.append(base::escapedForDisplay(file));
  text.append(
      "\n\nTo restore: sorvane backup restore FILE --recovery-key\n"
      "Keep this page separately from the backup, then delete the file it was printed from.\n");
  return text;
}

/// The name of the file; empty for none. An answer to another question is none.
std::string pageName() {
  for (;;) {
    const auto typed = typedLine("A page to print goes to a file of your choice. File name, or Enter for none: ");
    const std::string name(base::trimmed(typed.value_or("")));
    const std::string word = bare(name);
    if (word != "Y" && word != "YES" && word != "N" && word != "NO") return name;
    note("That would be the name of a file. Type a name such as recovery-key.txt, or press Enter for none.");
  }
}

/// Where the page went; empty for none.
std::filesystem::path offerPage(const base::SecretText& key, const std::string& file) {
  const std::string path = pageName();
  if (path.empty()) return {};
  try {
    base::SystemFiles files;
    const std::filesystem::path whole = std::filesystem::absolute(path);
    if (std::filesystem::exists(std::filesystem::symlink_status(whole))) {
      note("There is already a file of that name, so no page was written. Copy the key by hand.");
      return {};
    }
    files.writeAtomically(whole, page(key, file).bytes());
    note("Written to " + path + ", readable by you only. Print it, then delete it.");
    return whole;
  } catch (const base::Error&) {
    note("The page could not be written. Copy the key by hand.");
  } catch (const std::filesystem::filesystem_error&) {
    note("The page could not be written. Copy the key by hand.");
  }
  return {};
}

/// The key opens nothing: its backup was not saved.
void removePage(const std::filesystem::path& page) {
  if (page.empty()) return;
  std::error_code error;
  std::filesystem::remove(page, error);
  note(error ? "Delete " + page.string() + ": its key opens nothing." : "The page with the key was removed again.");
}

}  // namespace

bool showRecoveryKey(const Options& options, const base::SecretText& key, const std::string& file) {
  if (!canAsk(options)) {
    if (!options.json) printValue(key);
    return true;
  }
  note("The recovery key of this backup, shown this once:");
  base::SecretText line("\n    ");
  line.append(key.view());
  line.append("\n\n");
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
  note("Keep this key separately from the backup. sorvane won't save a copy of it.");
  const std::filesystem::path page = offerPage(key, file);
  for (int attempt = 0; attempt < kTries; ++attempt) {
    const auto typed = typedLine("Type the last group of the key, to show that you have it: ");
    if (!typed) break;
    if (bare(*typed) == lastGroup(key)) return true;
    note("That is not the last group of the key. Look at it again.");
  }
  removePage(page);
  return false;
}

}  // namespace sorvane::cli
