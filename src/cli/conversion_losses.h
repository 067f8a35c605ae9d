// What a conversion could not carry into the file it wrote.
#pragma once
#include <string>
#include <vector>

#include "core/collection.h"

namespace orlin::cli {

struct ConversionLoss {
  std::string item;  // `waveform "Piano C4"`, `instrument "Kit"`, `collection`
  std::string what;  // "loop dropped", "2 channels became 1", "3 of 40 regions dropped"
};

// Reads back what a save wrote (`writtenPaths` in the order written, the named file last; samples
// stay undecoded) and lists what of `saved` it no longer holds.
std::vector<ConversionLoss> FindConversionLosses(Item* saved, const std::vector<std::string>& writtenPaths);

}  // namespace orlin::cli
