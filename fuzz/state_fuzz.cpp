// Any bytes as a state file or as the records of a clipboard block (its CRC made right, so the
// records themselves are what gets read): reading never crashes, and a state that reads writes back
// to a state that reads to the same bytes again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "commands/clipboard.h"
#include "core/collection.h"
#include "core/state_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  if (size >= 4 && std::memcmp(data, "OlSt", 4) == 0) {
    Collection collection;
    if (!DeserializeState(collection, data, size)) return 0;
    std::vector<uint8_t> again, third;
    if (!SerializeState(collection, again)) std::abort();
    Collection reread;
    if (!DeserializeState(reread, again.data(), again.size())) std::abort();
    if (!SerializeState(reread, third) || third != again) std::abort();
    return 0;
  }
  if (size < 4) return 0;
  // The first four bytes give the item count; the rest are the records.
  std::vector<uint8_t> block(16 + size - 4);
  uint32_t count;
  std::memcpy(&count, data, 4);
  const uint32_t processId = 1, bytes = uint32_t(size - 4);
  const uint32_t crc = Crc32(data + 4, size - 4);
  std::memcpy(block.data(), &processId, 4);
  std::memcpy(block.data() + 4, &count, 4);
  std::memcpy(block.data() + 8, &bytes, 4);
  std::memcpy(block.data() + 12, &crc, 4);
  std::memcpy(block.data() + 16, data + 4, size - 4);
  Collection collection;
  PasteItemsFromBlock(collection, block, processId);
  return 0;
}
