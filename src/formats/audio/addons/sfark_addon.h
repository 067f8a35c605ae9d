// sfArk archives through libsfark, loaded at first use. The library unpacks a whole archive into a
// SoundFont file and talks back through four functions the program provides (messages, progress,
// licence and notes), which are exported from the executable so that the library finds them.
#pragma once
#include <string>

namespace orlin::addons {

constexpr const char* kSfArkMissing =
    "You need to install the free sfArk add-on (libsfark.so.0) before you can read sfArk files";

// Results of UnpackSfArk besides the library's own codes (0 success, negative failures).
constexpr int kSfArkNotLoaded = 1;

// Unpacks `archive` into the SoundFont `target`, which lies in the archive's folder; 0 on success,
// kSfArkNotLoaded when the add-on is missing, else the library's negative error code.
int UnpackSfArk(const std::string& archive, const std::string& target);

}  // namespace orlin::addons
