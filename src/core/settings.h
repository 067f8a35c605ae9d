// The user's options: one global record, loaded once at start and written once at exit.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace orlin {

struct Settings {
  // load.*
  bool loadEnsureUniqueNames = true;   // load.bEnsureUniqueNames
  bool loadAutoRemoveDupWaves = true;  // load.bAutoRemoveDupWaves
  // app.*
  std::array<int32_t, 5> lastExportRows{};  // app.aiLastExp: wave, instrument-like, song, collection, other
  std::vector<std::string> recentFiles;     // app.LastFilesW, newest first, at most 16
  std::string lastPathIn;                   // app.LastPathInW
  std::string lastPathOut;                  // app.LastPathOutW
  // sall.*
  int32_t saveAllMode = 213;    // sall.iMode
  bool saveAllSubDirs = false;  // sall.bSubDirs
  // The features word: which parameters the user keeps; all bits by default.
  uint64_t features = ~uint64_t(0);
};

Settings& GetSettings();

constexpr size_t kMaxRecentFiles = 16;
// Moves or inserts `path` at the top of the recent list; a failed save or open removes it instead.
void AddRecentFile(const std::string& path, bool isSave, bool failed = false);
void RemoveRecentFile(const std::string& path);

}  // namespace orlin
