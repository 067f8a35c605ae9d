// SFZ text instruments: the pre-processor (#define, #include), the tokenizer, the reader that turns
// <global>/<master>/<group>/<region> levels into regions with waves and articulation, and the writer
// of the v1 and v2 dialects with their wave folders. The format is loose: unknown opcodes are skipped,
// and what the model cannot hold goes to a parse log with line and column.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/format_table.h"

namespace orlin {

// Writer variants: bit 8 asks for a wave sub-folder, bit 9 for the version-2 dialect.
constexpr uint32_t kSfzVariantSubFolder = 0x100;
constexpr uint32_t kSfzVariantVersion2 = 0x200;

// One entry of the parse log: what could not be carried into the model, and where.
struct SfzLogEntry {
  int line = 0;
  int column = 0;
  std::string text;
};

enum class SfzTokenKind : uint8_t { Header, Opcode, Comment, BlankLine };

struct SfzToken {
  SfzTokenKind kind = SfzTokenKind::Opcode;
  std::string key;    // header name, opcode key (lower case), or comment text
  std::string value;  // opcode value
  int line = 1;
  int column = 1;
};

// Applies #define and #include to `text`; `folder` is where included files are looked for.
// Include depth is limited so that a file including itself ends. The expanded text may reach a fixed
// multiple of the bytes read; past it the first form fails with "Too much text from #define and
// #include (over N bytes) for this file" and leaves `out` empty, the second gives what stood by then.
bool PreprocessSfz(const std::string& text, const std::string& folder, std::vector<SfzLogEntry>* log,
                   std::string& out);
std::string PreprocessSfz(const std::string& text, const std::string& folder, std::vector<SfzLogEntry>* log);
// Splits pre-processed text into headers, opcodes, comments and blank-line marks.
std::vector<SfzToken> TokenizeSfz(const std::string& text);
// "c4" -> 60, "C#-1" -> 1, "36" -> 36; false when neither a number nor a note name.
bool ParseSfzKey(const std::string& value, int& key);

int32_t DetectSfz(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadSfz(Collection* collection, FileObject* file, uint32_t variant);
// As ReadSfz on a file path, with the parse log handed back (for `orlin info --log` and tests).
bool ReadSfzFile(Collection* collection, const std::string& path, std::vector<SfzLogEntry>* log);
bool WriteSfz(Item* item, FileObject* file, const SaveOptions* options);

}  // namespace orlin
