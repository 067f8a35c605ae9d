#include <cstdio>

#include "cli/commands.h"
#include "cli/json.h"
#include "core/file_object.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/text.h"
#include "formats/song/midi.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/command_registry.h"

namespace orlin::cli {

namespace {

std::string RangeText(int lo, int hi, bool notes) {
  auto one = [notes](int v) { return notes ? NoteName(v) : std::to_string(v); };
  return lo == hi ? one(lo) : one(lo) + ".." + one(hi);
}

std::string WaveFacts(const Waveform& wave) {
  char text[512];
  std::snprintf(text, sizeof text, "%u frames, %u Hz, %u ch, %u bits, %s, root %s, tune %+d ct", wave.length,
                wave.sampleRate, wave.channels, wave.bits, StorageName(wave.SourceStorage()),
                NoteName(wave.rootKey).c_str(), int(wave.fineTune));
  std::string out = text;
  if (wave.gain != 0.0f) out += ", gain " + std::to_string(wave.gain) + " dB";
  if (wave.loop.type != 0) {
    std::snprintf(text, sizeof text, ", loop %s %g..%g", wave.loop.type == 1 ? "forward" : wave.loop.type == 2 ? "reverse" : "alternating",
                  double(wave.loop.start), double(wave.loop.end));
    out += text;
  }
  if (!wave.markers.empty()) out += ", " + std::to_string(wave.markers.size()) + " markers";
  return out;
}

void WaveJson(JsonWriter& json, const Waveform& wave) {
  json.BeginObject()
      .Key("name").Value(wave.GetName())
      .Key("frames").Value(wave.length)
      .Key("rate").Value(wave.sampleRate)
      .Key("channels").Value(uint32_t(wave.channels))
      .Key("bits").Value(uint32_t(wave.bits))
      .Key("storage").Value(StorageName(wave.SourceStorage()))
      .Key("rootKey").Value(uint32_t(wave.rootKey))
      .Key("fineTuneCents").Value(int(wave.fineTune))
      .Key("gainDb").Value(double(wave.gain));
  json.Key("loop").BeginObject()
      .Key("type").Value(uint32_t(wave.loop.type))
      .Key("start").Value(double(wave.loop.start))
      .Key("endExclusive").Value(double(wave.loop.end))
      .EndObject();
  json.Key("markers").BeginArray();
  for (const Marker& marker : wave.markers)
    json.BeginObject().Key("name").Value(marker.name).Key("start").Value(marker.start).Key("end").Value(marker.end).EndObject();
  json.EndArray().EndObject();
}

void InstrumentJson(JsonWriter& json, const Collection& collection, const Instrument& instrument) {
  json.BeginObject()
      .Key("name").Value(instrument.GetName())
      .Key("bank").Value(instrument.MajorBank())
      .Key("minorBank").Value(instrument.MinorBank())
      .Key("program").Value(instrument.Program())
      .Key("drumKit").Value(instrument.IsDrumKit());
  json.Key("layers").BeginArray();
  for (uint32_t layerId : instrument.children) {
    const Layer* layer = collection.Find<Layer>(layerId);
    if (!layer) continue;
    json.BeginObject().Key("name").Value(layer->GetName()).Key("regions").BeginArray();
    for (uint32_t regionId : layer->children) {
      const Region* region = collection.Find<Region>(regionId);
      if (!region) continue;
      const Waveform* wave = region->GetWave();
      json.BeginObject()
          .Key("keys").BeginArray().Value(uint32_t(region->range.loKey)).Value(uint32_t(region->range.hiKey)).EndArray()
          .Key("velocities").BeginArray().Value(uint32_t(region->range.loVelocity)).Value(uint32_t(region->range.hiVelocity)).EndArray()
          .Key("rootKey").Value(uint32_t(region->EffectiveRootKey()))
          .Key("wave").Value(wave ? wave->GetName() : std::string())
          .EndObject();
    }
    json.EndArray().EndObject();
  }
  json.EndArray().EndObject();
}

}  // namespace

std::vector<std::string> DescribeTree(const Collection& collection) {
  std::vector<std::string> lines;
  lines.push_back("collection \"" + collection.GetName() + "\"");
  for (const Instrument* instrument : collection.All<Instrument>()) {
    char head[256];
    std::snprintf(head, sizeof head, "  instrument %s%d-%d-%d \"", instrument->IsDrumKit() ? "drums " : "",
                  instrument->MajorBank(), instrument->MinorBank(), instrument->Program());
    lines.push_back(head + instrument->GetName() + "\"");
    for (uint32_t layerId : instrument->children) {
      const Layer* layer = collection.Find<Layer>(layerId);
      if (!layer) continue;
      lines.push_back("    layer \"" + layer->GetName() + "\", " + std::to_string(layer->children.size()) + " regions");
      for (uint32_t regionId : layer->children) {
        const Region* region = collection.Find<Region>(regionId);
        if (!region) continue;
        lines.push_back("      region keys " + RangeText(region->range.loKey, region->range.hiKey, true) + ", vel " +
                        RangeText(region->range.loVelocity, region->range.hiVelocity, false) + ", root " +
                        NoteName(region->EffectiveRootKey()) + ": " + region->GetName());
      }
    }
  }
  for (const Waveform* wave : collection.All<Waveform>())
    lines.push_back("  waveform \"" + wave->GetName() + "\": " + WaveFacts(*wave));
  for (const Song* song : collection.All<Song>()) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.2f s", SongDurationSeconds(*song));
    lines.push_back("  song \"" + song->GetName() + "\": " + SongInfoLine(*song) + ", " +
                    std::to_string(song->children.size()) + " tracks, " + seconds);
    for (uint32_t trackId : song->children)
      if (const Track* track = collection.Find<Track>(trackId)) {
        const uint8_t channel = track->firstChannel;
        const std::string channelText = channel == 255 ? "no channel" : channel == 254 ? "several channels"
                                                                                       : "channel " + std::to_string(channel + 1);
        lines.push_back("    track \"" + track->GetName() + "\", " + std::to_string(track->data.size()) + " bytes, " +
                        std::to_string(CountTrackEvents(*track)) + " events, " + channelText);
      }
  }
  return lines;
}

int RunInfo(const std::vector<std::string>& files, bool json, std::ostream& out, std::ostream& err,
            const std::string& paramsItem, bool raw) {
  int status = kExitOk;
  JsonWriter writer;
  writer.BeginArray();
  for (const std::string& path : files) {
    FileObject file;
    int32_t confidence = 0;
    int32_t row = -1;
    if (file.Open(path, FileMode::Read)) row = DetectFileFormat(path, file, confidence);
    file.Close();
    // A known format without a reader is named, at no confidence.
    if (row <= kUnrecognizedRow && RecognisedRowWithoutReader(path) >= 0) {
      row = RecognisedRowWithoutReader(path);
      confidence = 0;
    }
    Collection collection;
    const bool loaded = raw ? LoadFileAsRow(collection, path, kUnrecognizedRow) : LoadFile(collection, path, false);
    if (!loaded) {
      err << "orlin: " << path << ": " << LastError() << "\n";
      status = kExitFileFailed;
    }
    if (loaded && !paramsItem.empty() && SelectItems(collection, paramsItem).empty()) {
      err << "orlin: " << path << ": no item \"" << paramsItem
          << "\"; --params takes an item's name, TYPE:N (instrument:0, layer:0, region:3, waveform:2, song:0, "
             "track:1, collection) or an id such as 0x40000000\n";
      return kExitUsage;
    }
    if (json) {
      writer.BeginObject()
          .Key("file").Value(path)
          .Key("row").Value(row)
          .Key("extension").Value(GetRowExtension(row))
          .Key("description").Value(GetRowDescription(row))
          .Key("confidence").Value(confidence)
          .Key("loaded").Value(loaded);
      if (!loaded) writer.Key("error").Value(LastError());
      writer.Key("name").Value(collection.GetName());
      writer.Key("instruments").BeginArray();
      for (const Instrument* instrument : collection.All<Instrument>()) InstrumentJson(writer, collection, *instrument);
      writer.EndArray();
      writer.Key("waveforms").BeginArray();
      for (const Waveform* wave : collection.All<Waveform>()) WaveJson(writer, *wave);
      writer.EndArray();
      writer.Key("songs").BeginArray();
      for (const Song* song : collection.All<Song>()) {
        writer.BeginObject().Key("name").Value(song->GetName()).Key("format").Value(uint32_t(song->format));
        writer.Key("tracks").BeginArray();
        for (uint32_t trackId : song->children)
          if (const Track* track = collection.Find<Track>(trackId))
            writer.BeginObject().Key("name").Value(track->GetName()).Key("bytes").Value(uint32_t(track->data.size())).EndObject();
        writer.EndArray().EndObject();
      }
      writer.EndArray();
      if (!paramsItem.empty()) {
        writer.Key("params").BeginArray();
        for (const Item* item : SelectItems(collection, paramsItem)) ParamsJson(writer, *item);
        writer.EndArray();
      }
      writer.EndObject();
      continue;
    }
    out << path << ": " << (row >= 0 ? GetRowExtension(row) + " - " + GetRowDescription(row) : "unknown")
        << " (row " << row << ", confidence " << confidence << "%)\n";
    if (loaded)
      for (const std::string& line : DescribeTree(collection)) out << line << "\n";
    if (loaded && !paramsItem.empty()) {
      for (const Item* item : SelectItems(collection, paramsItem)) {
        out << ItemTypeWord(uint32_t(item->Type())) << " \"" << item->GetName() << "\" parameters:\n";
        for (const std::string& line : DescribeParams(*item)) out << "  " << line << "\n";
      }
    }
  }
  writer.EndArray();
  if (json) out << writer.Text() << "\n";
  return status;
}

std::pair<CLI::App*, CommandRunner> AddInfoCommand(CLI::App& app, const GlobalOptions&, std::ostream& out,
                                                    std::ostream& err) {
  struct Options {
    std::vector<std::string> files;
    bool json = false, raw = false;
    std::string params;
  };
  auto options = std::make_shared<Options>();
  auto* command = app.add_subcommand("info", "Detect files and show the items they hold");
  command->add_option("files", options->files, "Files to inspect")->required();
  command->add_flag("--json", options->json, "JSON output");
  command->add_flag("--raw", options->raw, "Read the files as raw 8-bit data, whatever they look like");
  command->add_option("--params", options->params, "List the parameters of an item: a name, TYPE:N or an id");
  return {command, [options, &out, &err] {
            return RunInfo(options->files, options->json, out, err, options->params, options->raw);
          }};
}

}  // namespace orlin::cli
