// An entry set in any document is found and read, and goes again without a trace, also when a neighbour came meanwhile;
// a document that one function refuses is refused by all.
#include "edit_properties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  sorvane::clients::checkEdits(sorvane::clients::ConfigFormat::json, {reinterpret_cast<const char*>(data), size});
  return 0;
}
