// What is accepted as an unlock configuration can be acted on, and comes back the same when it is written.
#include <cstdint>
#include <cstdlib>

#include "unlock/unlock_configuration.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvane;
  const auto configuration = unlock::decodeConfiguration(base::textOf({data, size}));
  if (!configuration) return 0;
  const bool needsPassphrase = configuration->requirement != unlock::PassphraseRequirement::off;
  if (needsPassphrase && !configuration->passphrase) std::abort();
  if (configuration->passphrase && !configuration->passphrase->isComputable()) std::abort();
  if (configuration->failedAttempts < 0) std::abort();
  const base::SecretText text = unlock::encodeConfiguration(*configuration);
  if (unlock::decodeConfiguration(text.view()) != configuration) std::abort();
  return 0;
}
