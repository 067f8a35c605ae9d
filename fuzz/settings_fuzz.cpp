// Any bytes as a settings file: parsing never crashes, and what we write reads back to itself, so a
// damaged file can never grow or change further across runs.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  Settings first;
  ParseSettingsText(first, std::string(reinterpret_cast<const char*>(data), size));
  const std::string written = FormatSettingsText(first);
  Settings second;
  ParseSettingsText(second, written);
  if (FormatSettingsText(second) != written) std::abort();
  return 0;
}
