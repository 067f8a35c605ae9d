// `orlin params`: the parameter table as text or JSON, every one of the 263 rows with its kind,
// unit, bounds, control and flags, and for the FX slot ids the rows each effect type shows.
#include <cstdio>

#include "cli/commands.h"
#include "cli/json.h"
#include "core/articulation.h"

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

}  // namespace

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
