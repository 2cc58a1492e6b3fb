// Envelopes of the link to a phone: what is accepted of a side carries what its kind does, and comes back the same when
// it is written. The first byte says whose side it is.
#include <cstdint>
#include <cstdlib>

#include "phone/envelope.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvane;
  if (size == 0) return 0;
  const phone::Side from = data[0] % 2 == 0 ? phone::Side::mac : phone::Side::phone;
  const auto envelope = phone::decodeEnvelope(base::textOf({data + 1, size - 1}), from);
  if (!envelope) return 0;
  if (!phone::isWellFormed(*envelope, from)) std::abort();
  const std::string text = phone::encodeEnvelope(*envelope);
  const auto again = phone::decodeEnvelope(text, from);
  if (!again || *again != *envelope || phone::encodeEnvelope(*again) != text) std::abort();
  return 0;
}
