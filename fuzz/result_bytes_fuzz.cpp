// A result read back from untrusted bytes (a pickle from elsewhere): either
// Error, or a result that writes the very same bytes again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "framealign/framealign.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  framealign::AlignResult result;
  try {
    result = framealign::AlignResult::from_bytes(bytes);
  } catch (const framealign::Error&) {
    return 0;
  }
  if (result.to_bytes() != bytes) std::abort();
  return 0;
}
