#include "approver/passphrase.h"

#include <unistd.h>

#include <cerrno>

#include "base/unicode.h"

namespace sorvane::approver {
namespace {

constexpr std::size_t kMostBytes = Terminal::kMostHidden;

base::SecretText firstLineOf(int fd) {
  base::SecretText line;
  char c = 0;
  while (line.size() <= kMostBytes) {
    const ssize_t got = ::read(fd, &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw PassphraseError("No passphrase could be read from the file that --passphrase-fd names.");
    if (got == 0 || c == '\n') break;
    line.push_back(c);
  }
  base::wipe(&c, 1);
  return line;
}

base::SecretText checked(base::SecretText text) {
  if (text.empty()) throw PassphraseError("No passphrase was given, so nothing was done.");
  if (text.size() > kMostBytes || !base::isUtf8(text.view()))
    throw PassphraseError("A passphrase is text of at most " + std::to_string(kMostBytes) +
                          " bytes, and this is none. Nothing was done. Give another.");
  return text;
}

base::SecretText ask(const PassphraseSource& source, const char* prompt) {
  if (source.fd) return checked(firstLineOf(*source.fd));
  auto line = source.terminal.hiddenLine(prompt);
  return checked(line ? std::move(*line) : base::SecretText());
}

}  // namespace

base::SecretText askPassphrase(const PassphraseSource& source) {
  return ask(source, "Passphrase of this device's keys (not shown): ");
}

base::SecretText askNewPassphrase(const PassphraseSource& source) {
  base::SecretText text = ask(source, "New passphrase for this device's keys (not shown): ");
  const auto composed = base::nfcOfSecret(text.view());
  if (!composed || base::characterCount(composed->view()) < kFewestCharacters)
    throw PassphraseError("Use at least " + std::to_string(kFewestCharacters) +
                          " characters: whoever gets the key file can try passphrases at leisure. Nothing was paired.");
  if (!source.fd && !ask(source, "The same again: ").sameAs(text.view()))
    throw PassphraseError("The passphrases don’t match, so nothing was paired. Try again.");
  return text;
}

}  // namespace sorvane::approver
