#include <cstdio>

#include "cli/commands.h"
#include "cli/json.h"
#include "core/format_table.h"

namespace orlin::cli {

namespace {
std::string Hex(uint32_t value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*X", digits, value);
  return text;
}
}  // namespace

int RunFormats(bool readable, bool writable, bool json, std::ostream& out) {
  JsonWriter writer;
  writer.BeginArray();
  for (int32_t row = 0; row < kFormatRowCount; ++row) {
    const FormatEntry& entry = *GetFormatRow(row);
    if ((readable && !entry.read) || (writable && !entry.write)) continue;
    if (json) {
      writer.BeginObject()
          .Key("index").Value(row)
          .Key("extension").Value(entry.extension)
          .Key("description").Value(entry.description)
          .Key("read").Value(entry.read != nullptr)
          .Key("write").Value(entry.write != nullptr)
          .Key("mask").Value(Hex(entry.itemTypes, 2))
          .Key("caps").Value(Hex(entry.caps, 8))
          .Key("variant").Value(Hex(entry.variant, 1));
      writer.Key("settings").BeginArray();
      for (const auto& [value, label] : GetSettingsList(row)) writer.Value(label);
      writer.EndArray().EndObject();
    } else {
      char line[512];
      std::snprintf(line, sizeof line, "%3d  %-10s %c%c  %s  %s  %s\n", row, entry.extension, entry.read ? 'r' : '-',
                    entry.write ? 'w' : '-', Hex(entry.itemTypes, 2).c_str(), Hex(entry.caps, 8).c_str(),
                    entry.description);
      out << line;
    }
  }
  writer.EndArray();
  if (json) out << writer.Text() << "\n";
  return kExitOk;
}

}  // namespace orlin::cli
