// The user's options: one global record, loaded once at start and written once at exit, stored as
// a human-editable text file of typed "name = value" lines under the stored names. Unknown lines are
// kept; a value that cannot be read keeps its default; a damaged file never stops start-up.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace orlin {

constexpr const char* kProgramVersion = "12.7";
constexpr size_t kMaxRecentFiles = 16;
constexpr size_t kRecentBlockBytes = 1024;  // app.LastFilesW: wide strings, each zero-terminated
constexpr int32_t kDefaultPaneSplit = 221;

struct Settings {
  std::string versionNumber = "0.0";        // VersionNumber: of the last run
  std::vector<std::string> recentFiles;     // app.LastFilesW, newest first, at most 16
  std::string lastPathIn;                   // app.LastPathInW
  std::string lastPathOut;                  // app.LastPathOutW
  std::array<int32_t, 5> lastExportRows{};  // app.aiLastExp: wave, instrument-like, song, collection, other
  std::array<int32_t, 2> lastPosition{};    // app.ptLastPos
  std::array<int32_t, 2> lastSize{};        // app.ptLastSize
  int32_t paneSplitLeft = kDefaultPaneSplit;                   // app.iPaneSplitL; below 17 back to 221
  std::array<uint16_t, 5> columnWidths{160, 62, 50, 40, 40};  // app.awColWidths
  uint8_t checkForUpdates = 255;  // app.bCheckForUpdates; 255: not asked yet
  bool displayBankPrograms = true;   // app.bDispBankPrgs
  bool displayMinorBank = false;     // app.bDispLoBank
  bool autoSelectWaveforms = true;   // app.bAutoSelWaveforms
  bool autoSelectCollItems = false;  // app.bAutoSelCollItems
  bool propagateDownDelta = false;   // app.bPropagateDownDelta
  bool persistentState = false;      // app.bPersistentState
  bool showNoteNames = true;         // app.bShowNoteNames
  bool midCIsC3 = false;             // app.bMidIsNamedC3
  // load.*
  bool loadConfirm = false;               // load.bConfirm
  bool loadAutoSplitStereo = false;       // load.bAutoSplitStereo
  bool loadAutoMergeStereo = true;        // load.bAutoMergeStereo
  bool loadAutoCompactLayers = true;      // load.bAutoCompactLayers
  bool loadAutoRemoveDupWaves = true;     // load.bAutoRemoveDupWaves
  bool loadAutoMoveArticulation = false;  // load.bAutoMoveArticulation
  bool loadAutoMoveTriggerParams = true;  // load.bAutoMoveTriggerParams
  bool loadAutoAppend32 = false;          // load.bAutoAppend32
  bool loadAutoBid2Fwd = false;           // load.bAutoBid2Fwd
  bool loadAutoSortColl = true;           // load.bAutoSortColl
  bool loadAutoSortWaves = true;          // load.bAutoSortWaves
  bool loadEnsureUniqueNames = true;      // load.bEnsureUniqueNames
  // aio.*
  std::string audioOutDevice = "Windows default";  // aio.szAudioOutDev: the system default device
  bool audioOutExclusive = false;
  uint8_t audioOutBits = 16;
  uint8_t audioOutChannels = 2;
  int32_t audioOutSampleRate = 48000;
  std::string audioInDevice = "Windows default";
  bool audioInExclusive = false;
  uint8_t audioInBits = 16;
  uint8_t audioInChannels = 2;
  bool audioInAgc = true;
  bool audioInMono = false;
  int32_t audioInSampleRate = 48000;
  std::string midiInDevice;
  int32_t latency = -1;  // -1 automatic
  float mixGainDb = 6.0f;
  float waveGainDb = -6.0f;
  bool audioEnable = false;
  bool virtualKeyboard = true;
  bool playWaveOnClick = true;
  bool playCollOnClick = false;
  std::string virtualKeysLow = "ZSXDCVGBHNJM,L.";     // aio.acVKlo
  std::string virtualKeysHigh = "Q2W3ER5T6Y7UI9O0P";  // aio.acVKhi
  // viz.*
  bool waveDisplayFill = true;
  bool waveDisplaySplit = false;
  bool trackInEditor = true;
  bool spectrum = false;
  bool channelDisplay = false;
  // sds.*, rawio.*
  std::string sampleDumpOutDevice;
  std::string sampleDumpInDevice;
  int32_t sampleDumpChannel = 0;
  int32_t sampleDumpBaseSample = 0;
  int32_t scsiDevice = 0;
  int32_t sampleDumpOutBits = 16;
  int32_t cdDevice = 0;
  int32_t floppyDevice = 0;
  bool rawReplaceCollection = true;
  std::string waveEditor;  // app.wszWave
  std::string midiEditor;  // app.wszMidi
  std::string vstPaths;    // app.szVSTPaths
  // The features word: which parameters the user keeps; all bits by default.
  uint64_t features = ~uint64_t(0);
  // sall.*
  int32_t saveAllMode = 213;    // sall.iMode
  bool saveAllSubDirs = false;  // sall.bSubDirs
  // sy2wt.*, mid2wav.*
  uint32_t synthToWaveRate = 48000;
  uint32_t synthToWaveMaxMs = 2000;
  uint32_t synthToWaveMinMs = 250;
  int32_t synthToWaveCount = 1;
  uint32_t songToWaveRate = 48000;
  bool songToWaveEffects = true;
  bool songToWaveDeleteSource = false;
  bool songToWaveNormalizePeak = true;
  bool songToWaveDeleteSilence = true;
  std::string songToWaveBank;
  int32_t songToWaveMaxPolyphony = 128;
  // fmt.*
  bool mp3WriteId3 = true;
  bool mp3WriteApe = false;
  bool mp3WriteJointStereo = true;
  bool mp2WriteId3 = false;
  bool mp2WriteJointStereo = true;
  bool aacWriteId3 = false;
  bool aacWriteApe = false;
  bool aacWriteMs = true;
  uint32_t voxDataFormat = 0x8002000;
  uint32_t sd2SampleRate = 44100;
  int32_t sd2Channels = 2;
  int32_t sd2Bits = 16;

  // Lines of the settings file with names this program does not know, written back as they were.
  std::vector<std::string> unknownLines;
  // True on the first run (no stored version): the help opens at the end of start-up.
  bool firstRun = false;
};

Settings& GetSettings();

// $ORLIN_CONFIG_DIR/Orlin Studio 12.conf, else $XDG_CONFIG_HOME (default ~/.config)/Kestrel-Soft/.
std::string SettingsFilePath();
// Every value to its default, then the stored ones over them. A missing or damaged file leaves the
// defaults. An older stored version is replaced by this program's.
void LoadSettings();
// Writes every value in the table's order; false with the last-error text when the file fails.
bool SaveSettings();
// The same on a given record and text, for tools and tests.
void ParseSettingsText(Settings& settings, const std::string& text);
std::string FormatSettingsText(const Settings& settings);

// Stored names in order, and one value as its stored text; false for an unknown name or bad value.
std::vector<std::string> SettingNames();
bool GetSettingText(const Settings& settings, const std::string& name, std::string& value);
bool SetSettingText(Settings& settings, const std::string& name, const std::string& value);

// Moves or inserts `path` at the top of the recent list and remembers its folder as the last in- or
// out-folder; a failed save or open removes it instead.
void AddRecentFile(const std::string& path, bool isSave, bool failed = false);
void RemoveRecentFile(const std::string& path);

// Presets of the features word, in the preferences' order.
struct FeaturePreset {
  const char* name;
  uint64_t mask;
};
const std::vector<FeaturePreset>& FeaturePresets();
// The preset's name, or "Custom set".
const char* FeaturePresetName(uint64_t features);
// Label of a feature bit; empty for bit 4 and from 44 on.
const char* FeatureLabel(int bit);

}  // namespace orlin
