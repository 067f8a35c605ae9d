#include "core/format_table.h"

#include <algorithm>

#include "core/file_object.h"
#include "core/text.h"

namespace orlin {

int32_t DetectByExtensionOnly(const uint8_t*, uint32_t, uint32_t, uint64_t) { return 2; }

const FormatEntry* GetFormatRow(int32_t row) {
  return (row >= 0 && row < kFormatRowCount) ? &FormatRows()[row] : nullptr;
}

namespace {

std::string_view SkipDot(std::string_view extension) {
  if (!extension.empty() && extension[0] == '.') extension.remove_prefix(1);
  return extension;
}

}  // namespace

int32_t FindWriteRow(std::string_view extension, uint8_t typeMask) {
  extension = SkipDot(extension);
  for (int32_t row = 0; row < kFormatRowCount; ++row) {
    const FormatEntry& entry = FormatRows()[row];
    if (entry.write && (entry.itemTypes & typeMask) && EqualsIgnoreCase(entry.extension, extension)) return row;
  }
  return -1;
}

int32_t FindReadRow(std::string_view extension) {
  extension = SkipDot(extension);
  for (int32_t row = 1; row < kFormatRowCount; ++row) {
    const FormatEntry& entry = FormatRows()[row];
    if (entry.read && EqualsIgnoreCase(entry.extension, extension)) return row;
  }
  return -1;
}

std::string GetRowDescription(int32_t row) {
  const FormatEntry* entry = GetFormatRow(row);
  return entry ? entry->description : "<none>";
}

std::string GetRowExtension(int32_t row) {
  const FormatEntry* entry = GetFormatRow(row);
  return entry ? entry->extension : "";
}

bool CanSaveType(int32_t row, uint32_t type) {
  const FormatEntry* entry = GetFormatRow(row);
  return entry && entry->write && type < 8 && (entry->itemTypes >> type) & 1;
}

uint32_t GetRowCaps(int32_t row, uint32_t* variantOut) {
  const FormatEntry* entry = GetFormatRow(row);
  if (!entry) return 0;
  // Rows of one extension stand together; a read-only row borrows the caps of the first writer after it.
  for (int32_t at = row; at < kFormatRowCount; ++at) {
    const FormatEntry& candidate = FormatRows()[at];
    if (std::string_view(candidate.extension) != entry->extension) break;
    if (candidate.write) {
      if (variantOut) *variantOut = candidate.variant;
      return candidate.caps;
    }
  }
  return 0;
}

bool NextReadRow(int32_t& row) {
  while (++row < kFormatRowCount)
    if (FormatRows()[row].read) return true;
  return false;
}

bool NextWriteRow(int32_t& row) {
  while (++row < kFormatRowCount)
    if (FormatRows()[row].write) return true;
  return false;
}

bool GetSettingValue(int32_t row, uint32_t index, double& value, std::string* labelOut) {
  const FormatEntry* entry = GetFormatRow(row);
  if (!entry || !entry->settings) return false;
  value = entry->settings(index, entry->variant, labelOut);
  return value > 0.0;
}

std::vector<std::pair<double, std::string>> GetSettingsList(int32_t row) {
  std::vector<std::pair<double, std::string>> out;
  double value;
  std::string label;
  for (uint32_t index = 0; GetSettingValue(row, index, value, &label); ++index) out.emplace_back(value, label);
  return out;
}

bool ExtensionMatches(std::string_view pattern, std::string_view extension) {
  size_t i = 0;
  for (; i < pattern.size(); ++i) {
    if (pattern[i] == '*') return true;
    if (i >= extension.size()) return false;
    if (pattern[i] == '?') continue;
    char a = pattern[i], b = extension[i];
    if (a >= 'a' && a <= 'z') a = char(a - 32);
    if (b >= 'a' && b <= 'z') b = char(b - 32);
    if (a != b) return false;
  }
  return i == extension.size();
}

std::string ExtensionOf(std::string_view path) {
  const size_t slash = path.find_last_of('/');
  const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  const size_t dot = name.find_last_of('.');
  return dot == std::string_view::npos ? std::string() : std::string(name.substr(dot + 1));
}

int32_t RecognisedRowWithoutReader(std::string_view path) {
  const std::string extension = ExtensionOf(path);
  if (extension.empty()) return -1;
  int32_t found = -1;
  for (int32_t row = 1; row < kFormatRowCount; ++row) {
    const FormatEntry& entry = FormatRows()[row];
    if (std::string_view(entry.extension).find_first_of("?*") != std::string_view::npos ||
        !ExtensionMatches(entry.extension, extension))
      continue;
    if (entry.read) return -1;
    if (found < 0) found = row;
  }
  return found;
}

int32_t DetectFormatOfHead(std::string_view fileName, const uint8_t* head, uint32_t headBytes, uint64_t fileSize,
                           int32_t& confidence, int32_t* scoreOut) {
  confidence = 0;
  if (fileSize == 0) return -1;
  const std::string extension = ExtensionOf(fileName);
  int32_t bestRow = -1;
  int32_t bestScore = 0;
  for (int32_t row = 0; row < kFormatRowCount; ++row) {
    const FormatEntry& entry = FormatRows()[row];
    if (!entry.read) continue;
    int32_t score = 0;
    if (ExtensionMatches(entry.extension, extension)) score = row == kUnrecognizedRow ? 2 : 3;
    if (entry.detect) score += entry.detect(head, entry.variant, headBytes, fileSize);
    if (score > bestScore) {  // strictly greater: the first row wins a tie
      bestScore = score;
      bestRow = row;
    }
  }
  if (bestScore <= 2) bestScore = 0;
  if (bestRow < 0 || (bestScore == 0 && std::string_view(FormatRows()[bestRow].extension) != "*")) return -1;
  if (scoreOut) *scoreOut = bestScore;
  confidence = bestRow == kUnrecognizedRow ? 0 : bestScore * 100 / 9;
  return bestRow;
}

int32_t DetectFileFormat(const std::string& path, FileObject& file, int32_t& confidence) {
  confidence = 0;
  const int64_t size = file.Size();
  if (size <= 0) return -1;
  const uint32_t headBytes = uint32_t(std::min<int64_t>(size, kDetectHeadBytes));
  // A short read leaves zeros, which no detector takes for a signature.
  std::vector<uint8_t> head(headBytes, 0);
  const uint64_t position = file.Tell();
  file.ReadAt(0, head.data(), headBytes);
  file.Seek(position);
  return DetectFormatOfHead(path, head.data(), headBytes, uint64_t(size), confidence);
}

void DescribeFile(const std::string& path, std::string& description, int32_t& confidence) {
  confidence = 0;
  description.clear();
  FileObject file;
  if (!file.Open(path, FileMode::Read)) return;
  const int32_t row = DetectFileFormat(path, file, confidence);
  if (row < 0) {
    description = "Unknown file type";
    confidence = 0;
    return;
  }
  description = GetRowDescription(row);
}

}  // namespace orlin
