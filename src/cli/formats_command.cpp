#include <cstdio>

#include "cli/commands.h"
#include "cli/json.h"
#include "core/format_table.h"
#include "core/save_choice.h"
#include "core/wave_data.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/command_registry.h"

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
  if (!json) out << "row  extension  rw  mask  caps        description\n";
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
          .Key("mask").Value(uint32_t(entry.itemTypes))
          .Key("caps").Value(entry.caps)
          .Key("variant").Value(entry.variant);
      // The same facts by name, so a script need not decode bits.
      writer.Key("items").BeginArray();
      for (uint32_t type = 0; type < 8; ++type)
        if (entry.itemTypes & (1u << type)) writer.Value(ItemTypeWord(type));
      writer.EndArray();
      writer.Key("mono").Value((entry.caps & kCapsMono) != 0).Key("stereo").Value((entry.caps & kCapsStereo) != 0);
      // Every data format a save to this row offers, storage names and compression settings alike.
      writer.Key("dataFormats").BeginArray();
      if (entry.write)
        for (const SaveComboEntry& choice : DataFormatEntries(row, {}))
          if (choice.kind != SaveComboEntry::Kind::Auto) writer.Value(choice.label);
      writer.EndArray();
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

std::pair<CLI::App*, CommandRunner> AddFormatsCommand(CLI::App& app, const GlobalOptions&, std::ostream& out,
                                                       std::ostream&) {
  struct Options {
    bool readable = false, writable = false, json = false;
  };
  auto options = std::make_shared<Options>();
  auto* command = app.add_subcommand("formats", "List the rows of the format table");
  command->add_flag("--readable", options->readable, "Only rows that can be read");
  command->add_flag("--writable", options->writable, "Only rows that can be written");
  command->add_flag("--json", options->json, "JSON output: numbers, named item types, every data format");
  return {command, [options, &out] { return RunFormats(options->readable, options->writable, options->json, out); }};
}

}  // namespace orlin::cli
