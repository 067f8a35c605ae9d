#include "core/settings.h"

#include <algorithm>
#include <filesystem>

namespace orlin {

Settings& GetSettings() {
  static Settings settings;
  return settings;
}

void RemoveRecentFile(const std::string& path) { std::erase(GetSettings().recentFiles, path); }

void AddRecentFile(const std::string& path, bool isSave, bool failed) {
  Settings& settings = GetSettings();
  RemoveRecentFile(path);
  if (failed) return;
  settings.recentFiles.insert(settings.recentFiles.begin(), path);
  if (settings.recentFiles.size() > kMaxRecentFiles) settings.recentFiles.resize(kMaxRecentFiles);
  const std::string folder = std::filesystem::path(path).parent_path().string();
  if (!folder.empty()) (isSave ? settings.lastPathOut : settings.lastPathIn) = folder;
}

}  // namespace orlin
