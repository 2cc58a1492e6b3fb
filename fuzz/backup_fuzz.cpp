// Backup files: what opens is written back to the same contents, and what is refused gives a sentence. The first byte
// chooses the reader: a whole file, a payload, a typed recovery key.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "unlock/backup.h"
#include "unlock/backup_recovery_key.h"

namespace {

using namespace sorvane;

void writtenBackIsTheSame(const unlock::BackupPayload& payload) {
  const auto first = unlock::encodePayload(payload);
  const auto second = unlock::encodePayload(unlock::decodePayload(first.view()));
  if (first.view() != second.view()) std::abort();
}

/// Without a secret: a sealed file stops at the question for one, before anything is derived.
void file(std::string_view text) {
  const unlock::ParsedBackup parsed = unlock::parseBackup(text);
  if (const auto* const envelope = std::get_if<unlock::BackupEnvelope>(&parsed)) {
    if (envelope->version == unlock::kBackupVersion) {
      const auto written = unlock::encodeEnvelope(*envelope);
      const auto again = unlock::parseBackup(written.view());
      if (unlock::encodeEnvelope(std::get<unlock::BackupEnvelope>(again)).view() != written.view()) std::abort();
    }
  }
  writtenBackIsTheSame(unlock::openBackup(parsed, {}).payload);
}

void recoveryKey(std::string_view text) {
  const auto bytes = unlock::recoveryKeyBytes(text);
  if (!bytes) return;
  const auto again = unlock::recoveryKeyBytes(unlock::recoveryKeyText(bytes->bytes()).view());
  if (!again || again->view() != bytes->view()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  try {
    if (data[0] % 3 == 0) file(text);
    if (data[0] % 3 == 1 && unlock::isText(text)) writtenBackIsTheSame(unlock::decodePayload(text));
    if (data[0] % 3 == 2) recoveryKey(text);
  } catch (const base::Error& error) {
    if (error.sentence().empty()) std::abort();
  }
  return 0;
}
