// The settings store: first run, values read back with their rules, a damaged file, unknown lines
// kept across a save, the recent-file list, and the presets of the features word.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "core/settings.h"
#include "test_support.h"

namespace orlin {
namespace {

// Points the store at a scratch folder and restores the record afterwards.
class SettingsStore : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* old = std::getenv("ORLIN_CONFIG_DIR");
    hadOld_ = old != nullptr;
    if (old) old_ = old;
    setenv("ORLIN_CONFIG_DIR", scratch_.Path().c_str(), 1);
  }
  void TearDown() override {
    if (hadOld_) setenv("ORLIN_CONFIG_DIR", old_.c_str(), 1);
    else unsetenv("ORLIN_CONFIG_DIR");
    GetSettings() = saved_;
  }
  void WriteFile(const std::string& text) { std::ofstream(SettingsFilePath(), std::ios::binary) << text; }

  test::ScratchDir scratch_;
  Settings saved_ = GetSettings();
  std::string old_;
  bool hadOld_ = false;
};

TEST_F(SettingsStore, FirstRunGivesDefaults) {
  EXPECT_EQ(SettingsFilePath(), scratch_.File("Orlin Studio 12.conf"));
  LoadSettings();
  const Settings& settings = GetSettings();
  EXPECT_TRUE(settings.firstRun);
  EXPECT_EQ(settings.versionNumber, "12.7");
  EXPECT_EQ(settings.paneSplitLeft, 221);
  EXPECT_EQ(settings.columnWidths, (std::array<uint16_t, 5>{160, 62, 50, 40, 40}));
  EXPECT_EQ(settings.checkForUpdates, 255);
  EXPECT_EQ(settings.audioOutDevice, "Windows default");
  EXPECT_EQ(settings.virtualKeysHigh, "Q2W3ER5T6Y7UI9O0P");
  EXPECT_FLOAT_EQ(settings.waveGainDb, -6.0f);
  EXPECT_EQ(settings.voxDataFormat, 0x8002000u);
  EXPECT_EQ(settings.features, ~uint64_t(0));
  EXPECT_TRUE(settings.loadAutoMergeStereo);
  EXPECT_FALSE(settings.loadAutoSplitStereo);
  EXPECT_EQ(settings.saveAllMode, 213);
}

TEST_F(SettingsStore, ValuesReadBackWithTheirRules) {
  WriteFile("VersionNumber = 12.5\napp.iPaneSplitL = 16\naio.fdbMixGain = 3.5\nload.bAutoSplitStereo = 1\n"
            "app.awColWidths = 1 2 3 4 5\nfeatures = 0x40c0002\nsall.iMode = not-a-number\n");
  LoadSettings();
  const Settings& settings = GetSettings();
  EXPECT_FALSE(settings.firstRun);
  EXPECT_EQ(settings.versionNumber, "12.7");  // an older version is replaced
  EXPECT_EQ(settings.paneSplitLeft, 221);     // too narrow: back to the default
  EXPECT_FLOAT_EQ(settings.mixGainDb, 3.5f);
  EXPECT_TRUE(settings.loadAutoSplitStereo);
  EXPECT_EQ(settings.columnWidths[4], 5);
  EXPECT_EQ(settings.features, 0x40c0002u);
  EXPECT_EQ(settings.saveAllMode, 213);  // unreadable: the default stays
  EXPECT_STREQ(FeaturePresetName(settings.features), "DLS level 1 melodic (.DLS)");
  EXPECT_STREQ(FeaturePresetName(0x1234), "Custom set");
}

TEST_F(SettingsStore, GarbageFileLoadsAsDefaults) {
  std::string garbage;
  for (int i = 0; i < 4096; ++i) garbage += char((i * 7919 + 13) & 0xFF);
  WriteFile(garbage);
  LoadSettings();
  EXPECT_EQ(GetSettings().paneSplitLeft, 221);
  EXPECT_EQ(GetSettings().features, ~uint64_t(0));
  EXPECT_TRUE(GetSettings().loadEnsureUniqueNames);
}

TEST_F(SettingsStore, SaveKeepsUnknownLinesAndValues) {
  WriteFile("# my notes\nfuture.bSomething = 1\napp.iPaneSplitL = 300\n");
  LoadSettings();
  GetSettings().vstPaths = "/opt/vst\\with backslash";
  AddRecentFile("/music/a.wav", false);
  ASSERT_TRUE(SaveSettings());
  GetSettings() = Settings();
  LoadSettings();
  EXPECT_EQ(GetSettings().paneSplitLeft, 300);
  EXPECT_EQ(GetSettings().vstPaths, "/opt/vst\\with backslash");
  ASSERT_EQ(GetSettings().recentFiles.size(), 1u);
  EXPECT_EQ(GetSettings().lastPathIn, "/music");
  std::ifstream in(SettingsFilePath());
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("future.bSomething = 1"), std::string::npos);
  EXPECT_NE(text.find("# my notes"), std::string::npos);
}

TEST_F(SettingsStore, RecentListKeepsSixteen) {
  GetSettings().recentFiles.clear();
  for (int i = 1; i <= 17; ++i) AddRecentFile("/songs/file" + std::to_string(i) + ".mid", false);
  const auto& list = GetSettings().recentFiles;
  ASSERT_EQ(list.size(), 16u);
  EXPECT_EQ(list.front(), "/songs/file17.mid");
  EXPECT_EQ(list.back(), "/songs/file2.mid");
  // Case-blind for ASCII: the same file moves to the top instead of doubling.
  AddRecentFile("/SONGS/FILE5.MID", true);
  EXPECT_EQ(list.size(), 16u);
  EXPECT_EQ(list.front(), "/SONGS/FILE5.MID");
  EXPECT_EQ(GetSettings().lastPathOut, "/SONGS");
  // A failed open takes the path out.
  AddRecentFile("/songs/file9.mid", false, true);
  EXPECT_EQ(list.size(), 15u);
  // Long paths: the stored block of 1024 bytes limits the list before the count does.
  GetSettings().recentFiles.clear();
  for (int i = 0; i < 10; ++i) AddRecentFile("/" + std::string(200, char('a' + i)), false);
  EXPECT_EQ(list.size(), 2u);
}

TEST_F(SettingsStore, GetAndSetByName) {
  Settings settings;
  std::string value;
  ASSERT_TRUE(GetSettingText(settings, "aio.acVKlo", value));
  EXPECT_EQ(value, "ZSXDCVGBHNJM,L.");
  EXPECT_TRUE(SetSettingText(settings, "fmt.sd2.iBits", "24"));
  EXPECT_EQ(settings.sd2Bits, 24);
  EXPECT_FALSE(SetSettingText(settings, "fmt.sd2.iBits", "x"));
  EXPECT_FALSE(SetSettingText(settings, "no.such", "1"));
  EXPECT_EQ(SettingNames().front(), "VersionNumber");
  EXPECT_EQ(SettingNames().size(), 95u);
}

}  // namespace
}  // namespace orlin
