// `orlin params`: the parameter table as text or JSON, every one of the 263 rows with its kind,
// unit, bounds, control and flags, and for the FX slot ids the rows each effect type shows.
#include <cstdio>
#include <cstdlib>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/command_registry.h"
#include "cli/commands.h"
#include "cli/json.h"
#include "core/articulation.h"
#include "core/collection.h"
#include "core/settings.h"

namespace orlin::cli {

namespace {

void WriteRow(JsonWriter& writer, const ParamInfo& row) {
  writer.BeginObject()
      .Key("id").Value(int(row.id))
      .Key("name").Value(row.name)
      .Key("note");
  if (row.note) writer.Value(row.note);
  else writer.Null();
  writer.Key("kind").Value(int(row.kind))
      .Key("unit").Value(UnitLabel(row.unit))
      .Key("default").Value(double(row.defaultValue))
      .Key("min").Value(double(row.minValue))
      .Key("max").Value(double(row.maxValue))
      .Key("control").Value(int(row.control))
      .Key("flags").Value(int(row.flags));
}

// The parameters an item offers, in id order: the rows its GetParamInfo answers with a kind.
std::vector<std::pair<ParamId, const ParamInfo*>> OfferedParams(const Item& item) {
  std::vector<std::pair<ParamId, const ParamInfo*>> out;
  for (ParamId id = 0; id < kParamCount; ++id) {
    if (id >= kFirstTextParam && id < kFirstWaveParam) continue;  // texts are shown by the tree
    const ParamInfo* row = item.GetParamInfo(id);
    if (row && row->kind != kKindNone) out.push_back({id, row});
  }
  return out;
}

}  // namespace

std::vector<const Item*> SelectItems(const Collection& collection, const std::string& selector) {
  std::vector<const Item*> out;
  const size_t colon = selector.find(':');
  if (colon != std::string::npos) {
    const std::string word = selector.substr(0, colon);
    const long index = std::strtol(selector.c_str() + colon + 1, nullptr, 10);
    long seen = 0;
    for (const Item* item : collection.AllItems())
      if (word == ItemTypeWord(uint32_t(item->Type())) && seen++ == index) out.push_back(item);
    return out;
  }
  if (selector.rfind("0x", 0) == 0) {
    if (const Item* item = collection.FindItem(uint32_t(std::strtoul(selector.c_str(), nullptr, 16)))) out.push_back(item);
    return out;
  }
  for (const Item* item : collection.AllItems())
    if (item->GetName() == selector) out.push_back(item);
  return out;
}

std::vector<std::string> DescribeParams(const Item& item) {
  std::vector<std::string> lines;
  const bool midCIsC3 = GetSettings().midCIsC3;
  for (const auto& [id, row] : OfferedParams(item)) {
    char line[512];
    const std::string value = FormatParamValue(*row, item.GetParam(id), midCIsC3);
    std::snprintf(line, sizeof line, "%3u %c %s: %s %s", unsigned(id), item.IsParamSet(id) ? '*' : ' ', row->name,
                  value.c_str(), row->kind == kKindPercent ? "" : UnitLabel(row->unit));
    std::string text = line;
    while (!text.empty() && text.back() == ' ') text.pop_back();
    lines.push_back(text);
  }
  return lines;
}

void ParamsJson(JsonWriter& json, const Item& item) {
  json.BeginObject()
      .Key("type").Value(ItemTypeWord(uint32_t(item.Type())))
      .Key("name").Value(item.GetName())
      .Key("params").BeginArray();
  for (const auto& [id, row] : OfferedParams(item))
    json.BeginObject()
        .Key("id").Value(int(id))
        .Key("name").Value(row->name)
        .Key("value").Value(double(item.GetParam(id)))
        .Key("text").Value(FormatParamValue(*row, item.GetParam(id), GetSettings().midCIsC3))
        .Key("set").Value(item.IsParamSet(id))
        .EndObject();
  json.EndArray().EndObject();
}

int RunParams(bool json, std::ostream& out) {
  if (!json) {
    for (ParamId id = 0; id < kParamCount; ++id) {
      const ParamInfo& row = *GetParamRow(id);
      char line[512];
      std::snprintf(line, sizeof line, "%3u  kind %2u  %-3s  default %-9g [%g, %g]  %s", unsigned(id),
                    unsigned(row.kind), UnitLabel(row.unit), double(row.defaultValue), double(row.minValue),
                    double(row.maxValue), row.name);
      out << line << '\n';
    }
    return kExitOk;
  }
  JsonWriter writer;
  writer.BeginArray();
  for (ParamId id = 0; id < kParamCount; ++id) {
    WriteRow(writer, *GetParamRow(id));
    if (id >= kFirstEffectParam) {
      // The slot's rows under each effect type, as the instrument's view shows them.
      writer.Key("fxViews").BeginArray();
      for (int fxType = 0; fxType < kEffectTypeCount; ++fxType) {
        WriteRow(writer, *EffectView(id, fxType, true));
        writer.Key("fxType").Value(fxType).EndObject();
      }
      writer.EndArray();
    }
    writer.EndObject();
  }
  writer.EndArray();
  out << writer.Text() << '\n';
  return kExitOk;
}

}  // namespace orlin::cli

namespace orlin::cli {

std::pair<CLI::App*, CommandRunner> AddParamsCommand(CLI::App& app, const GlobalOptions&, std::ostream& out,
                                                      std::ostream&) {
  auto json = std::make_shared<bool>(false);
  auto* command = app.add_subcommand("params", "List the parameter table");
  command->add_flag("--json", *json, "JSON output");
  return {command, [json, &out] { return RunParams(*json, out); }};
}

}  // namespace orlin::cli
