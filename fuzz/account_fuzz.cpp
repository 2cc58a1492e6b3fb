// An account that parses is written back to the same account, and never one of the reserved ones.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "vault/accounts.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvane::vault;
  const std::string_view account(reinterpret_cast<const char*>(data), size);
  const auto parsed = parseVersionAccount(account);
  if (!parsed) return 0;
  if (parsed->secretId.empty() || isReservedAccount(account)) std::abort();
  const auto again = parseVersionAccount(accountOf(parsed->secretId, parsed->version));
  if (!again || !(*again == *parsed)) std::abort();
  return 0;
}
