// Loading of codec add-ons with dlopen. ORLIN_ADDON_PATH may name a folder that is tried before the
// system's library path, so a user can put a newer build of a codec beside the program.
#include "formats/audio/addons/addon_loader.h"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <map>

namespace orlin::addons {

namespace {

std::map<std::string, AddonLibrary*, std::less<>>& Registry() {
  static std::map<std::string, AddonLibrary*, std::less<>> registry;
  return registry;
}

void* OpenByName(const std::string& soname) {
  if (const char* folder = std::getenv("ORLIN_ADDON_PATH"); folder && *folder) {
    const std::string path = (std::filesystem::path(folder) / soname).string();
    if (void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) return handle;
  }
  return dlopen(soname.c_str(), RTLD_NOW | RTLD_LOCAL);
}

}  // namespace

AddonLibrary::AddonLibrary(std::string key, std::vector<std::string> sonames)
    : key_(std::move(key)), sonames_(std::move(sonames)) {
  Registry()[key_] = this;
}

bool AddonLibrary::Bind(const AddonSymbol* symbols, size_t count) {
  if (handle_) return true;
  const std::vector<std::string>& names = override_.empty() ? sonames_ : override_;
  void* handle = nullptr;
  for (const std::string& name : names)
    if ((handle = OpenByName(name))) break;
  if (!handle) return false;
  for (size_t i = 0; i < count; ++i) {
    void* address = dlsym(handle, symbols[i].name);
    if (!address) {
      dlclose(handle);
      return false;
    }
    *symbols[i].slot = address;
  }
  handle_ = handle;
  return true;
}

void AddonLibrary::Unload() {
  // The library stays mapped: decoders created from it may still be alive. Only the binding is
  // forgotten, which is all a retry or a test needs.
  handle_ = nullptr;
}

void AddonLibrary::OverrideSonames(std::vector<std::string> sonames) {
  override_ = std::move(sonames);
  Unload();
}

AddonLibrary* FindAddonLibrary(std::string_view key) {
  auto found = Registry().find(key);
  return found == Registry().end() ? nullptr : found->second;
}

bool HideAddonForTest(std::string_view key, bool hidden) {
  AddonLibrary* library = FindAddonLibrary(key);
  if (!library) return false;
  library->OverrideSonames(hidden ? std::vector<std::string>{"liborlin-absent-addon.so.0"} : std::vector<std::string>{});
  return true;
}

}  // namespace orlin::addons
