// The settings file: one "name = value" line per stored value, in the order of the table below,
// under the names and with the types and defaults the record has always stored. Strings escape
// backslash and newline; arrays are blank-separated numbers; the features word is hexadecimal;
// each recent file is a line of its own. Unknown lines survive a load and save unchanged.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/last_error.h"
#include "core/settings.h"

namespace orlin {

namespace {

enum class FieldType : uint8_t { Bool, Byte, Int, UInt, Float, String, Ints, Words, Features, Recent };

struct Field {
  const char* name;
  FieldType type;
  void* (*member)(Settings&);
  size_t maxChars = 0;  // strings: the stored width in characters; 0 any length
};

#define ORLIN_FIELD(name, type, member, ...) \
  Field { name, FieldType::type, [](Settings& s) -> void* { return &s.member; }, ##__VA_ARGS__ }

const std::vector<Field>& Fields() {
  static const std::vector<Field> kFields = {
      ORLIN_FIELD("VersionNumber", String, versionNumber, 16),
      ORLIN_FIELD("app.LastFilesW", Recent, recentFiles),
      ORLIN_FIELD("app.LastPathInW", String, lastPathIn, 260),
      ORLIN_FIELD("app.LastPathOutW", String, lastPathOut, 260),
      ORLIN_FIELD("app.aiLastExp", Ints, lastExportRows),
      ORLIN_FIELD("app.ptLastPos", Ints, lastPosition),
      ORLIN_FIELD("app.ptLastSize", Ints, lastSize),
      ORLIN_FIELD("app.iPaneSplitL", Int, paneSplitLeft),
      ORLIN_FIELD("app.awColWidths", Words, columnWidths),
      ORLIN_FIELD("app.bCheckForUpdates", Byte, checkForUpdates),
      ORLIN_FIELD("app.bDispBankPrgs", Bool, displayBankPrograms),
      ORLIN_FIELD("app.bDispLoBank", Bool, displayMinorBank),
      ORLIN_FIELD("app.bAutoSelWaveforms", Bool, autoSelectWaveforms),
      ORLIN_FIELD("app.bAutoSelCollItems", Bool, autoSelectCollItems),
      ORLIN_FIELD("app.bPropagateDownDelta", Bool, propagateDownDelta),
      ORLIN_FIELD("app.bPersistentState", Bool, persistentState),
      ORLIN_FIELD("app.bShowNoteNames", Bool, showNoteNames),
      ORLIN_FIELD("app.bMidIsNamedC3", Bool, midCIsC3),
      ORLIN_FIELD("load.bConfirm", Bool, loadConfirm),
      ORLIN_FIELD("load.bAutoSplitStereo", Bool, loadAutoSplitStereo),
      ORLIN_FIELD("load.bAutoMergeStereo", Bool, loadAutoMergeStereo),
      ORLIN_FIELD("load.bAutoCompactLayers", Bool, loadAutoCompactLayers),
      ORLIN_FIELD("load.bAutoRemoveDupWaves", Bool, loadAutoRemoveDupWaves),
      ORLIN_FIELD("load.bAutoMoveArticulation", Bool, loadAutoMoveArticulation),
      ORLIN_FIELD("load.bAutoMoveTriggerParams", Bool, loadAutoMoveTriggerParams),
      ORLIN_FIELD("load.bAutoAppend32", Bool, loadAutoAppend32),
      ORLIN_FIELD("load.bAutoBid2Fwd", Bool, loadAutoBid2Fwd),
      ORLIN_FIELD("load.bAutoSortColl", Bool, loadAutoSortColl),
      ORLIN_FIELD("load.bAutoSortWaves", Bool, loadAutoSortWaves),
      ORLIN_FIELD("load.bEnsureUniqueNames", Bool, loadEnsureUniqueNames),
      ORLIN_FIELD("aio.szAudioOutDev", String, audioOutDevice, 64),
      ORLIN_FIELD("aio.bAudioOutExclusive", Bool, audioOutExclusive),
      ORLIN_FIELD("aio.cAudioOutFormat", Byte, audioOutBits),
      ORLIN_FIELD("aio.cAudioOutChannels", Byte, audioOutChannels),
      ORLIN_FIELD("aio.szAudioOutSampleRate", Int, audioOutSampleRate),
      ORLIN_FIELD("aio.szAudioInDev", String, audioInDevice, 64),
      ORLIN_FIELD("aio.bAudioInExclusive", Bool, audioInExclusive),
      ORLIN_FIELD("aio.cAudioInFormat", Byte, audioInBits),
      ORLIN_FIELD("aio.cAudioInChannels", Byte, audioInChannels),
      ORLIN_FIELD("aio.bAudioInAGC", Bool, audioInAgc),
      ORLIN_FIELD("aio.bAudioInMono", Bool, audioInMono),
      ORLIN_FIELD("aio.szAudioInSampleRate", Int, audioInSampleRate),
      ORLIN_FIELD("aio.szMidiInDev", String, midiInDevice, 32),
      ORLIN_FIELD("aio.nLatency", Int, latency),
      ORLIN_FIELD("aio.fdbMixGain", Float, mixGainDb),
      ORLIN_FIELD("aio.fdbWaveGain", Float, waveGainDb),
      ORLIN_FIELD("aio.bEnable", Bool, audioEnable),
      ORLIN_FIELD("aio.bVKeyboard", Bool, virtualKeyboard),
      ORLIN_FIELD("aio.bPlayWaveOnClick", Bool, playWaveOnClick),
      ORLIN_FIELD("aio.bPlayCollOnClick", Bool, playCollOnClick),
      ORLIN_FIELD("aio.acVKlo", String, virtualKeysLow, 19),  // 38 bytes of wide characters
      ORLIN_FIELD("aio.acVKhi", String, virtualKeysHigh, 19),
      ORLIN_FIELD("viz.bWaveDispFill", Bool, waveDisplayFill),
      ORLIN_FIELD("viz.bWaveDispSplit", Bool, waveDisplaySplit),
      ORLIN_FIELD("viz.bTrackInEditor", Bool, trackInEditor),
      ORLIN_FIELD("viz.bSpectrum", Bool, spectrum),
      ORLIN_FIELD("viz.bChannels", Bool, channelDisplay),
      ORLIN_FIELD("sds.szOutDev", String, sampleDumpOutDevice, 32),
      ORLIN_FIELD("sds.szInDev", String, sampleDumpInDevice, 32),
      ORLIN_FIELD("sds.iChannel", Int, sampleDumpChannel),
      ORLIN_FIELD("sds.iBaseSample", Int, sampleDumpBaseSample),
      ORLIN_FIELD("sds.iSCSIDev", Int, scsiDevice),
      ORLIN_FIELD("sds.iOutBits", Int, sampleDumpOutBits),
      ORLIN_FIELD("rawio.iCDDev", Int, cdDevice),
      ORLIN_FIELD("rawio.iFDDev", Int, floppyDevice),
      ORLIN_FIELD("rawio.bReplaceColl", Bool, rawReplaceCollection),
      ORLIN_FIELD("app.wszWave", String, waveEditor, 260),
      ORLIN_FIELD("app.wszMidi", String, midiEditor, 260),
      ORLIN_FIELD("app.szVSTPaths", String, vstPaths),
      ORLIN_FIELD("features", Features, features),
      ORLIN_FIELD("sall.iMode", Int, saveAllMode),
      ORLIN_FIELD("sall.bSubDirs", Bool, saveAllSubDirs),
      ORLIN_FIELD("sy2wt.dwSampleRate", UInt, synthToWaveRate),
      ORLIN_FIELD("sy2wt.dwmsMaxLength", UInt, synthToWaveMaxMs),
      ORLIN_FIELD("sy2wt.dwmsMinLength", UInt, synthToWaveMinMs),
      ORLIN_FIELD("sy2wt.iNumWaves", Int, synthToWaveCount),
      ORLIN_FIELD("mid2wav.dwSampleRate", UInt, songToWaveRate),
      ORLIN_FIELD("mid2wav.bEffects", Bool, songToWaveEffects),
      ORLIN_FIELD("mid2wav.bDeleteSrc", Bool, songToWaveDeleteSource),
      ORLIN_FIELD("mid2wav.bNormalizePeak", Bool, songToWaveNormalizePeak),
      ORLIN_FIELD("mid2wav.bDeleteSilence", Bool, songToWaveDeleteSilence),
      ORLIN_FIELD("mid2wav.wszGMBank", String, songToWaveBank, 260),
      ORLIN_FIELD("mid2wav.iMaxPolyphony", Int, songToWaveMaxPolyphony),
      ORLIN_FIELD("fmt.mp3.bWriteID3", Bool, mp3WriteId3),
      ORLIN_FIELD("fmt.mp3.bWriteAPE", Bool, mp3WriteApe),
      ORLIN_FIELD("fmt.mp3.bWriteJS", Bool, mp3WriteJointStereo),
      ORLIN_FIELD("fmt.mp2.bWriteID3", Bool, mp2WriteId3),
      ORLIN_FIELD("fmt.mp2.bWriteJS", Bool, mp2WriteJointStereo),
      ORLIN_FIELD("fmt.aac.bWriteID3", Bool, aacWriteId3),
      ORLIN_FIELD("fmt.aac.bWriteAPE", Bool, aacWriteApe),
      ORLIN_FIELD("fmt.aac.bWriteMS", Bool, aacWriteMs),
      ORLIN_FIELD("fmt.vox.dwDataFormat", UInt, voxDataFormat),
      ORLIN_FIELD("fmt.sd2.dwSampleRate", UInt, sd2SampleRate),
      ORLIN_FIELD("fmt.sd2.iChannels", Int, sd2Channels),
      ORLIN_FIELD("fmt.sd2.iBits", Int, sd2Bits),
  };
  return kFields;
}
#undef ORLIN_FIELD

const Field* FindField(const std::string& name) {
  for (const Field& field : Fields())
    if (name == field.name) return &field;
  return nullptr;
}

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// As Trim, but a blank escaped by an odd run of backslashes at the end stays.
std::string TrimValue(const std::string& text) {
  std::string out = Trim(text);
  const size_t rawEnd = text.find_last_not_of(" \t\r");
  if (out.empty() || rawEnd == std::string::npos || rawEnd + 1 >= text.size()) return out;
  size_t slashes = 0;
  for (size_t i = rawEnd + 1; i-- > 0 && text[i] == '\\';) ++slashes;
  if (slashes % 2 == 1) out += text[rawEnd + 1];
  return out;
}

template <typename T>
bool ParseNumber(const std::string& text, T& out) {
  const char* begin = text.data();
  const char* end = begin + text.size();
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) begin += 2, base = 16;
  T value{};
  auto [at, error] = std::from_chars(begin, end, value, base);
  if (error != std::errc() || at != end || begin == end) return false;
  out = value;
  return true;
}

// Backslash escapes keep a value on one line and keep blanks at its ends, which reading trims.
std::string Escape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool atEdge = i == 0 || i + 1 == text.size();
    if (c == '\\') out += "\\\\";
    else if (c == '\n') out += "\\n";
    else if (c == '\r') out += "\\r";
    else if (c == '\t' && atEdge) out += "\\t";
    else if (c == ' ' && atEdge) out += "\\ ";
    else out += c;
  }
  return out;
}

std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      const char next = text[++i];
      out += next == 'n' ? '\n' : next == 'r' ? '\r' : next == 't' ? '\t' : next;
    } else {
      out += text[i];
    }
  }
  return out;
}

// Cuts a string to `maxChars` characters without splitting a UTF-8 sequence.
std::string CutToWidth(const std::string& text, size_t maxChars) {
  if (maxChars == 0) return text;
  size_t chars = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if ((uint8_t(text[i]) & 0xC0) == 0x80) continue;
    // One character stays free for the terminator of the stored field.
    if (++chars > maxChars - 1) return text.substr(0, i);
  }
  return text;
}

template <typename T, size_t N>
bool ParseArray(const std::string& text, std::array<T, N>& out) {
  std::istringstream in(text);
  std::array<T, N> values{};
  for (size_t i = 0; i < N; ++i) {
    std::string word;
    if (!(in >> word)) return false;
    if (!ParseNumber(word, values[i])) return false;
  }
  std::string extra;
  if (in >> extra) return false;
  out = values;
  return true;
}

template <typename T, size_t N>
std::string FormatArray(const std::array<T, N>& values) {
  std::string out;
  for (size_t i = 0; i < N; ++i) {
    if (i) out += ' ';
    out += std::to_string(values[i]);
  }
  return out;
}

// One value from its text; false leaves the record as it was.
bool ReadField(Settings& settings, const Field& field, const std::string& text) {
  void* member = field.member(settings);
  switch (field.type) {
    case FieldType::Bool: {
      int value = 0;
      if (!ParseNumber(text, value) || value < 0 || value > 255) return false;
      *static_cast<bool*>(member) = value != 0;
      return true;
    }
    case FieldType::Byte: {
      int value = 0;
      if (!ParseNumber(text, value) || value < 0 || value > 255) return false;
      *static_cast<uint8_t*>(member) = uint8_t(value);
      return true;
    }
    case FieldType::Int: return ParseNumber(text, *static_cast<int32_t*>(member));
    case FieldType::UInt: return ParseNumber(text, *static_cast<uint32_t*>(member));
    case FieldType::Float: {
      char* end = nullptr;
      const float value = std::strtof(text.c_str(), &end);
      if (text.empty() || *end != '\0' || !std::isfinite(value)) return false;
      *static_cast<float*>(member) = value;
      return true;
    }
    case FieldType::String:
      *static_cast<std::string*>(member) = CutToWidth(Unescape(text), field.maxChars);
      return true;
    case FieldType::Ints:
      // Positions and sizes are two words, the export rows five.
      if (member == &settings.lastExportRows) return ParseArray(text, settings.lastExportRows);
      return ParseArray(text, *static_cast<std::array<int32_t, 2>*>(member));
    case FieldType::Words: return ParseArray(text, *static_cast<std::array<uint16_t, 5>*>(member));
    case FieldType::Features: return ParseNumber(text, *static_cast<uint64_t*>(member));
    case FieldType::Recent: {
      auto& list = *static_cast<std::vector<std::string>*>(member);
      const std::string path = Unescape(text);
      if (path.empty() || list.size() >= kMaxRecentFiles) return false;
      list.push_back(path);
      return true;
    }
  }
  return false;
}

std::string WriteField(Settings& settings, const Field& field) {
  void* member = field.member(settings);
  char text[32];
  switch (field.type) {
    case FieldType::Bool: return *static_cast<bool*>(member) ? "1" : "0";
    case FieldType::Byte: return std::to_string(*static_cast<uint8_t*>(member));
    case FieldType::Int: return std::to_string(*static_cast<int32_t*>(member));
    case FieldType::UInt: return std::to_string(*static_cast<uint32_t*>(member));
    case FieldType::Float: std::snprintf(text, sizeof text, "%g", double(*static_cast<float*>(member))); return text;
    case FieldType::String: return Escape(*static_cast<std::string*>(member));
    case FieldType::Ints:
      if (member == &settings.lastExportRows) return FormatArray(settings.lastExportRows);
      return FormatArray(*static_cast<std::array<int32_t, 2>*>(member));
    case FieldType::Words: return FormatArray(*static_cast<std::array<uint16_t, 5>*>(member));
    case FieldType::Features:
      std::snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(*static_cast<uint64_t*>(member)));
      return text;
    case FieldType::Recent: break;  // one line per entry, written by the caller
  }
  return "";
}

// Rules applied after reading: a pane too narrow to use, and the version of this program.
void Settle(Settings& settings) {
  constexpr int32_t kNarrowestPane = 17;
  if (settings.paneSplitLeft < kNarrowestPane) settings.paneSplitLeft = kDefaultPaneSplit;
  settings.firstRun = settings.versionNumber == "0.0";
  if (settings.versionNumber < std::string(kProgramVersion)) settings.versionNumber = kProgramVersion;
}

}  // namespace

std::string SettingsFilePath() {
  namespace fs = std::filesystem;
  const char* const kFileName = "Orlin Studio 12.conf";
  if (const char* dir = std::getenv("ORLIN_CONFIG_DIR"); dir && *dir) return (fs::path(dir) / kFileName).string();
  fs::path base;
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg) base = xdg;
  else if (const char* home = std::getenv("HOME"); home && *home) base = fs::path(home) / ".config";
  else base = ".config";
  return (base / "Kestrel-Soft" / kFileName).string();
}

void ParseSettingsText(Settings& settings, const std::string& text) {
  settings = Settings();
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    while (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t equals = line.find('=');
    const Field* field = equals == std::string::npos ? nullptr : FindField(Trim(line.substr(0, equals)));
    if (!field) {
      // Comments, blank lines and names of other versions go back into the file as they were.
      if (!Trim(line).empty()) settings.unknownLines.push_back(line);
      continue;
    }
    // A value that does not read stays at its default.
    ReadField(settings, *field, TrimValue(line.substr(equals + 1)));
  }
  Settle(settings);
}

std::string FormatSettingsText(const Settings& constSettings) {
  Settings& settings = const_cast<Settings&>(constSettings);  // field accessors are not const; nothing changes
  std::string out = "# Orlin Studio settings: one name = value per line\n";
  for (const Field& field : Fields()) {
    if (field.type == FieldType::Recent) {
      for (const std::string& path : settings.recentFiles) out += std::string(field.name) + " = " + Escape(path) + "\n";
      continue;
    }
    out += std::string(field.name) + " = " + WriteField(settings, field) + "\n";
  }
  for (const std::string& line : settings.unknownLines)
    if (line.rfind("# Orlin Studio settings", 0) != 0) out += line + "\n";
  return out;
}

void LoadSettings() {
  Settings& settings = GetSettings();
  std::ifstream in(SettingsFilePath(), std::ios::binary);
  std::string text;
  if (in) {
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
  }
  ParseSettingsText(settings, text);
}

bool SaveSettings() {
  namespace fs = std::filesystem;
  const fs::path path = SettingsFilePath();
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  const fs::path temporary = path.string() + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out) {
      SetLastError("Cannot write the settings file " + path.string());
      return false;
    }
    out << FormatSettingsText(GetSettings());
    if (!out) {
      SetLastError("Cannot write the settings file " + path.string());
      return false;
    }
  }
  // Replaced in one step, so that a crash never leaves half a file.
  fs::rename(temporary, path, error);
  if (error) {
    SetLastError("Cannot write the settings file " + path.string());
    return false;
  }
  return true;
}

std::vector<std::string> SettingNames() {
  std::vector<std::string> names;
  for (const Field& field : Fields()) names.push_back(field.name);
  return names;
}

bool GetSettingText(const Settings& constSettings, const std::string& name, std::string& value) {
  const Field* field = FindField(name);
  if (!field) return false;
  Settings& settings = const_cast<Settings&>(constSettings);
  if (field->type == FieldType::Recent) {
    value.clear();
    for (const std::string& path : settings.recentFiles) value += (value.empty() ? "" : "\n") + path;
    return true;
  }
  value = WriteField(settings, *field);
  return true;
}

bool SetSettingText(Settings& settings, const std::string& name, const std::string& value) {
  const Field* field = FindField(name);
  if (!field) return false;
  if (field->type == FieldType::Recent) settings.recentFiles.clear();
  return ReadField(settings, *field, Trim(value));
}

}  // namespace orlin
