// Glue to libsfark. The library calls back into the program by plain C++ names; those callbacks
// live at global scope here and forward progress and the licence question to the user interface.
#include "formats/audio/addons/sfark_addon.h"

#include <dlfcn.h>
#include <sfArkLib.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string_view>

#include "core/user_interface.h"
#include "formats/audio/addons/addon_loader.h"

// The library's callbacks, looked up by the dynamic linker when it loads libsfark.
__attribute__((visibility("default"))) void sfkl_msg(const char*, int) {
  // Messages repeat what the return code says; the caller turns that code into the program's text.
}
__attribute__((visibility("default"))) void sfkl_UpdateProgress(int percent) {
  orlin::Ui().ProgressTick(uint64_t(std::clamp(percent, 0, 100)), 100);
}
__attribute__((visibility("default"))) bool sfkl_GetLicenseAgreement(const char* text, const char*) {
  return orlin::Ui().Ask("sfArk", text ? std::string_view(text) : std::string_view(), {"Agree", "Decline"}) == 0;
}
__attribute__((visibility("default"))) void sfkl_DisplayNotes(const char*, const char*) {}

namespace orlin::addons {

namespace {

struct SfArkApi {
  decltype(&sfkl_Decode) decode;
} api;

// The library is built as C++: its entry point carries the mangled name.
const AddonSymbol kSymbols[] = {{"_Z11sfkl_DecodePKcS0_", reinterpret_cast<void**>(&api.decode)}};

AddonLibrary library("sfark", {"libsfark.so.0", "libsfark.so"});

// Older builds (Debian's among them) put the output in the archive's folder under the name they are
// given, so a whole path there names a file that cannot be created; builds from 2019 on, which carry
// InitFilenames, take the path as it stands.
bool TakesWholeOutputPath() {
  Dl_info info;
  if (!dladdr(reinterpret_cast<void*>(api.decode), &info) || !info.dli_fname) return false;
  void* handle = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
  if (!handle) return false;
  const bool found = dlsym(handle, "_Z13InitFilenamesPKcS0_S0_") != nullptr;
  dlclose(handle);
  return found;
}

}  // namespace

int UnpackSfArk(const std::string& archive, const std::string& target) {
  if (!library.Bind(kSymbols, std::size(kSymbols))) return kSfArkNotLoaded;
  const std::string output = TakesWholeOutputPath() ? target : std::filesystem::path(target).filename().string();
  return api.decode(archive.c_str(), output.c_str());
}

}  // namespace orlin::addons
