// Codec add-ons are shared libraries reached by name at run time: each is loaded on first use,
// its entry points looked up by name, and a failed load is tried again on the next use, so that a
// library installed while the program runs needs no restart.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace orlin::addons {

// One entry point: its exported name and the slot its address goes to.
struct AddonSymbol {
  const char* name;
  void** slot;
};

// A library known by one or more sonames, tried in order. Not thread-safe: loads happen on the
// thread that opens and saves files.
class AddonLibrary {
 public:
  AddonLibrary(std::string key, std::vector<std::string> sonames);
  // Loads the library and binds every symbol; false when the library or any symbol is missing.
  // Once bound, later calls return true at once.
  bool Bind(const AddonSymbol* symbols, size_t count);
  bool IsLoaded() const { return handle_ != nullptr; }
  const std::string& Key() const { return key_; }
  // Forgets the loaded handle (the symbols bound from it are then stale until the next Bind).
  void Unload();
  // Test hook: the sonames to try instead of the real ones; an empty list restores them.
  void OverrideSonames(std::vector<std::string> sonames);

 private:
  std::string key_;
  std::vector<std::string> sonames_;
  std::vector<std::string> override_;
  void* handle_ = nullptr;
};

// The library registered under `key` ("flac", "vorbisfile", "lame"...); null for an unknown key.
AddonLibrary* FindAddonLibrary(std::string_view key);
// Test hook: points the library under `key` at a soname that does not exist (or back at the real
// ones with `hidden` false), so that its users see the missing-add-on text.
bool HideAddonForTest(std::string_view key, bool hidden);

}  // namespace orlin::addons
