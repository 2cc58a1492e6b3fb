// What is accepted as store.wrap can be derived within the bounds, asks for a passphrase, and comes back the same when
// it is written.
#include <cstdint>
#include <cstdlib>

#include "unlock/store_wrap.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvane;
  const auto outcome = unlock::decodeWrap(base::textOf({data, size}));
  const auto* const wrap = std::get_if<unlock::StoreWrap>(&outcome);
  if (wrap == nullptr) return 0;
  if (!crypto::isWithinBounds(wrap->cost)) std::abort();
  if (wrap->salt.size() != crypto::kPassphraseSaltBytes || wrap->key.size() != unlock::kWrappedKeyBytes) std::abort();
  if (wrap->requirement == unlock::PassphraseRequirement::off || wrap->failedAttempts < 0) std::abort();
  const base::SecretText text = unlock::encodeWrap(*wrap);
  const auto again = unlock::decodeWrap(text.view());
  if (std::get_if<unlock::StoreWrap>(&again) == nullptr || std::get<unlock::StoreWrap>(again) != *wrap) std::abort();
  return 0;
}
