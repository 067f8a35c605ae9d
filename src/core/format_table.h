// The format table: every file format the program reads or writes is one row of one constant table.
// Nothing else knows a format: the pipelines, dialogs, the command line and the tests walk this table.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace orlin {

class Collection;
class FileObject;
class Item;

// Caps bits 0-19 are storage formats (see wave_data.h); the rest:
constexpr uint32_t kCapsStorageMask = 0x000FFFFF;
constexpr uint32_t kCapsCompressed = 1u << 17;
constexpr uint32_t kCapsMidi = 1u << 19;
constexpr uint32_t kCapsMono = 1u << 20;
constexpr uint32_t kCapsStereo = 1u << 21;
constexpr uint32_t kCapsChannelMask = kCapsMono | kCapsStereo;
constexpr uint32_t kCapsDualMonoOnly = 1u << 25;  // banks that store stereo as two mono waves

// Item-type mask bits.
constexpr uint8_t kMaskWaveform = 0x01;
constexpr uint8_t kMaskSynth = 0x02;
constexpr uint8_t kMaskRegion = 0x04;
constexpr uint8_t kMaskLayer = 0x08;
constexpr uint8_t kMaskInstrument = 0x10;
constexpr uint8_t kMaskTrack = 0x20;
constexpr uint8_t kMaskSong = 0x40;
constexpr uint8_t kMaskCollection = 0x80;

struct SaveOptions {
  uint32_t caps = 0;     // the row's caps narrowed by the user's choice
  uint32_t variant = 0;  // the row's variant
  float rate = 0.0f;     // the chosen setting when "Compressed", else 0
  bool noItemCheck = false;
};

// Detectors score a file from its head: 0 not this format, 6 certain signature, 4 weak signature,
// 2 a guess. They never read the file and never fail.
using FormatDetector = int32_t (*)(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
// Readers fill an empty collection; true with nothing created means "skipped".
using FormatReader = bool (*)(Collection* collection, FileObject* file, uint32_t variant);
// Writers write `item` into a new, empty file.
using FormatWriter = bool (*)(Item* item, FileObject* file, const SaveOptions* options);
// Entry `index` of a row's compression settings; 0 or less past the end. `labelOut` may be null.
using FormatSettingsList = double (*)(uint32_t index, uint32_t variant, std::string* labelOut);

struct FormatEntry {
  const char* extension;  // lower case, no dot; may hold ? and * wildcards
  FormatReader read;
  FormatWriter write;
  FormatDetector detect;
  const char* description;
  uint8_t itemTypes;
  uint32_t caps;
  uint32_t variant;
  FormatSettingsList settings;
};

constexpr int32_t kFormatRowCount = 536;
constexpr int32_t kUnrecognizedRow = 0;

// The table itself, kFormatRowCount rows.
const FormatEntry* FormatRows();
const FormatEntry* GetFormatRow(int32_t row);  // null outside the table

// The common detector of rows without a signature.
int32_t DetectByExtensionOnly(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

// First row with a writer for `extension` (case ignored, one leading dot skipped) whose mask has any
// bit of `typeMask`; -1 if none.
int32_t FindWriteRow(std::string_view extension, uint8_t typeMask);
// First row with a reader for `extension`; -1 if none.
int32_t FindReadRow(std::string_view extension);
std::string GetRowDescription(int32_t row);  // "<none>" outside the table
std::string GetRowExtension(int32_t row);    // "" outside the table
bool CanSaveType(int32_t row, uint32_t type);
// Caps of the row, or of the first following row of the same extension that has a writer; 0 if none.
uint32_t GetRowCaps(int32_t row, uint32_t* variantOut = nullptr);
// Steps `row` to the next row with a reader (writer); false past the end. Start with row = -1.
bool NextReadRow(int32_t& row);
bool NextWriteRow(int32_t& row);
// Entry `index` of the row's settings list; false past the end or when the row has none.
bool GetSettingValue(int32_t row, uint32_t index, double& value, std::string* labelOut);
// All entries of a row's settings list, in order.
std::vector<std::pair<double, std::string>> GetSettingsList(int32_t row);

// Matches a row's extension pattern against a file's extension, case ignored.
bool ExtensionMatches(std::string_view pattern, std::string_view extension);
// The extension after the last dot of the file name, or "".
std::string ExtensionOf(std::string_view path);
// The first row of the file's extension when no row of that extension has a reader yet (an AIFF or
// DLS file today): the file is known, only not readable. -1 otherwise.
int32_t RecognisedRowWithoutReader(std::string_view path);

// Detects the row of an open file; -1 for none. `confidence` in percent (0 for row 0).
int32_t DetectFileFormat(const std::string& path, FileObject& file, int32_t& confidence);
// The same for a head buffer already in memory.
int32_t DetectFormatOfHead(std::string_view fileName, const uint8_t* head, uint32_t headBytes, uint64_t fileSize,
                           int32_t& confidence, int32_t* scoreOut = nullptr);
// For file previews: "Unknown file type" with 0 when undetected, "" with 0 when it cannot be opened.
void DescribeFile(const std::string& path, std::string& description, int32_t& confidence);

constexpr uint32_t kDetectHeadBytes = 32768;

}  // namespace orlin
