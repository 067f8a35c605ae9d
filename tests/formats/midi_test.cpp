// Standard MIDI files: the corpus reads and writes back byte for byte, event counts agree with mido,
// and the naming rules hold on small files made here.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "formats/song/midi.h"
#include "test_support.h"

namespace orlin {
namespace {

namespace fs = std::filesystem;

std::vector<fs::path> MidiCorpus() {
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(test::TestDataDir() / "midi"))
    if (entry.is_regular_file() && entry.path().extension() == ".mid") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

// True when the file is an MThd chunk and as many MTrk chunks as it announces, whose sizes fill it.
bool OnlyHeaderAndTracks(const std::vector<uint8_t>& bytes) {
  size_t offset = 0;
  bool first = true;
  uint32_t tracks = 0;
  while (offset + 8 <= bytes.size()) {
    const std::string id(bytes.begin() + offset, bytes.begin() + offset + 4);
    const uint32_t length = uint32_t(bytes[offset + 4]) << 24 | bytes[offset + 5] << 16 | bytes[offset + 6] << 8 | bytes[offset + 7];
    if (id != (first ? "MThd" : "MTrk")) return false;
    if (!first && length < 5) return false;  // such tracks are dropped on reading
    tracks += first ? 0 : 1;
    first = false;
    offset += 8 + uint64_t(length);
  }
  return !first && offset == bytes.size() && bytes.size() >= 14 && tracks == uint32_t(bytes[10] << 8 | bytes[11]);
}

Song* ReadBytes(Collection& collection, const test::ScratchDir& scratch, const std::vector<uint8_t>& bytes) {
  const std::string path = scratch.File("made.mid");
  test::WriteBytes(path, bytes);
  FileObject file;
  EXPECT_TRUE(file.Open(path, FileMode::Read));
  return ReadMidi(&collection, &file, 0, bytes.size());
}

std::vector<uint8_t> Header(uint16_t format, uint16_t tracks, uint16_t division) {
  return {'M', 'T', 'h', 'd', 0, 0, 0, 6, uint8_t(format >> 8), uint8_t(format), uint8_t(tracks >> 8), uint8_t(tracks),
          uint8_t(division >> 8), uint8_t(division)};
}

void AddTrack(std::vector<uint8_t>& file, const std::vector<uint8_t>& body) {
  const uint32_t n = uint32_t(body.size());
  file.insert(file.end(), {'M', 'T', 'r', 'k', uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
  file.insert(file.end(), body.begin(), body.end());
}

const std::vector<uint8_t> kEndOnly = {0x00, 0xFF, 0x2F, 0x00};
const std::vector<uint8_t> kTempoTrack = {0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20, 0x00, 0xFF, 0x2F, 0x00};
// Note on, then a note off by running status (velocity 0), 96 ticks later.
const std::vector<uint8_t> kNoteTrack = {0x00, 0x90, 60, 100, 0x60, 60, 0, 0x00, 0xFF, 0x2F, 0x00};

std::vector<std::string> TrackNames(const Collection& collection, const Song& song) {
  std::vector<std::string> names;
  for (uint32_t id : song.children) names.push_back(collection.Find<Track>(id)->GetName());
  return names;
}

TEST(MidiFiles, CorpusReadsAndWritesBackByteIdentical) {
  ORLIN_REQUIRE_TESTDATA();
  test::ScratchDir scratch;
  int roundTrips = 0;
  for (const fs::path& path : MidiCorpus()) {
    SCOPED_TRACE(path.string());
    const std::vector<uint8_t> original = test::ReadBytes(path.string());
    Collection collection;
    FileObject file;
    ASSERT_TRUE(file.Open(path.string(), FileMode::Read));
    Song* song = ReadMidi(&collection, &file, 0, original.size());
    const bool hasHeader = original.size() >= 4 && std::string(original.begin(), original.begin() + 4) == "MThd";
    EXPECT_EQ(song != nullptr, hasHeader);
    if (!song) {
      EXPECT_EQ(LastError(), "Invalid or corrupt Midi file");
      continue;
    }
    if (!OnlyHeaderAndTracks(original)) continue;
    const std::string out = scratch.File("out.mid");
    FileObject written;
    ASSERT_TRUE(written.Open(out, FileMode::Create));
    SaveOptions options;
    ASSERT_TRUE(WriteMidi(song, &written, &options));
    written.Close();
    EXPECT_EQ(test::ReadBytes(out), original);
    ++roundTrips;
  }
  EXPECT_GE(roundTrips, 20);
}

TEST(MidiFiles, EventCountsAndLengthAgreeWithMido) {
  ORLIN_REQUIRE_TESTDATA();
  const std::string python = "/usr/bin/python3";
  if (test::RunCommand(python + " -c 'import mido' 2>/dev/null") != 0) GTEST_SKIP() << "python3-mido is not installed";
  // One line a file mido reads: path, length in seconds (or -1), then the message count of each track
  // longer than an end-of-track alone.
  const std::string script =
      "import mido,sys\n"
      "for f in sys.argv[1:]:\n"
      "  try: m=mido.MidiFile(f)\n"
      "  except Exception: continue\n"
      "  try: s=m.length\n"
      "  except Exception: s=-1\n"
      "  print(f+'\\t'+str(s)+'\\t'+' '.join(str(len(t)) for t in m.tracks if len(t)>1 or t and t[0].time))\n";
  test::ScratchDir scratch;
  test::WriteBytes(scratch.File("count.py"), std::vector<uint8_t>(script.begin(), script.end()));
  std::string command = python + " " + scratch.File("count.py");
  for (const fs::path& path : MidiCorpus()) command += " '" + path.string() + "'";
  std::string output;
  ASSERT_EQ(test::RunCommand(command, &output), 0);
  std::istringstream lines(output);
  std::string line;
  int compared = 0;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string path, seconds, counts;
    std::getline(fields, path, '\t');
    std::getline(fields, seconds, '\t');
    std::getline(fields, counts);
    SCOPED_TRACE(path);
    Collection collection;
    FileObject file;
    ASSERT_TRUE(file.Open(path, FileMode::Read));
    Song* song = ReadMidi(&collection, &file, 0, uint64_t(file.Size()));
    ASSERT_NE(song, nullptr);
    std::string ours;
    for (uint32_t id : song->children) {
      const Track* track = collection.Find<Track>(id);
      ours += (ours.empty() ? "" : " ") + std::to_string(CountTrackEvents(*track));
    }
    EXPECT_EQ(ours, counts);
    if (std::stod(seconds) >= 0) {
      EXPECT_NEAR(SongDurationSeconds(*song), std::stod(seconds), 0.01);
    }
    ++compared;
  }
  EXPECT_GE(compared, 20);
}

TEST(MidiFiles, HeaderOnlyAndFailures) {
  test::ScratchDir scratch;
  Collection collection;
  collection.SetName("Stem");
  Song* song = ReadBytes(collection, scratch, Header(1, 3, 96));
  ASSERT_NE(song, nullptr);
  EXPECT_TRUE(song->children.empty());
  EXPECT_EQ(song->GetName(), "Stem");

  Collection other;
  std::vector<uint8_t> noHeader;
  AddTrack(noHeader, kNoteTrack);
  EXPECT_EQ(ReadBytes(other, scratch, noHeader), nullptr);
  EXPECT_EQ(LastError(), "Invalid or corrupt Midi file");

  FileObject file;
  ASSERT_TRUE(file.Open(scratch.File("made.mid"), FileMode::Read));
  EXPECT_EQ(ReadMidi(&other, &file, 100, 200), nullptr);
  EXPECT_EQ(LastError(), "Invalid or corrupt Midi file");

  // A forged chunk size ends the walk instead of running away.
  std::vector<uint8_t> forged = Header(0, 1, 96);
  forged.insert(forged.end(), {'M', 'T', 'r', 'k', 0xFF, 0xFF, 0xFF, 0xFF});
  forged.insert(forged.end(), kNoteTrack.begin(), kNoteTrack.end());
  Collection third;
  song = ReadBytes(third, scratch, forged);
  ASSERT_NE(song, nullptr);
  ASSERT_EQ(song->children.size(), 1u);
  EXPECT_EQ(third.Find<Track>(song->children[0])->data, kNoteTrack);
}

TEST(MidiFiles, TrackNamingRules) {
  test::ScratchDir scratch;
  {
    // A four-byte track is dropped but counted; the control track holds no notes.
    std::vector<uint8_t> bytes = Header(1, 4, 96);
    AddTrack(bytes, kTempoTrack);
    AddTrack(bytes, kEndOnly);
    AddTrack(bytes, kNoteTrack);
    AddTrack(bytes, kNoteTrack);
    Collection collection;
    Song* song = ReadBytes(collection, scratch, bytes);
    ASSERT_NE(song, nullptr);
    EXPECT_EQ(TrackNames(collection, *song), (std::vector<std::string>{"Control Track", "Track 02", "Track 03"}));
    EXPECT_EQ(collection.Find<Track>(song->children[0])->flags, 254);
    EXPECT_EQ(collection.Find<Track>(song->children[0])->firstChannel, 255);
    EXPECT_EQ(collection.Find<Track>(song->children[1])->firstChannel, 0);
  }
  {
    // Format 1 whose first track plays notes.
    std::vector<uint8_t> bytes = Header(1, 2, 96);
    AddTrack(bytes, kNoteTrack);
    AddTrack(bytes, kNoteTrack);
    Collection collection;
    Song* song = ReadBytes(collection, scratch, bytes);
    ASSERT_NE(song, nullptr);
    EXPECT_EQ(TrackNames(collection, *song), (std::vector<std::string>{"Track 01", "Track 02"}));
    EXPECT_EQ(collection.Find<Track>(song->children[0])->flags, 0);
  }
  {
    // Format 0 with two tracks keeps both, and writes both back.
    std::vector<uint8_t> bytes = Header(0, 2, 96);
    AddTrack(bytes, kNoteTrack);
    AddTrack(bytes, kTempoTrack);
    Collection collection;
    Song* song = ReadBytes(collection, scratch, bytes);
    ASSERT_NE(song, nullptr);
    EXPECT_EQ(TrackNames(collection, *song), (std::vector<std::string>{"Master Track", "Master Track"}));
  }
  {
    // Format 2: patterns named by their chunk index, the header being chunk 0.
    std::vector<uint8_t> bytes = Header(2, 2, 96);
    AddTrack(bytes, kNoteTrack);
    bytes.insert(bytes.end(), {'X', 'x', 'x', 'x', 0, 0, 0, 1, 0});
    AddTrack(bytes, kNoteTrack);
    Collection collection;
    Song* song = ReadBytes(collection, scratch, bytes);
    ASSERT_NE(song, nullptr);
    EXPECT_EQ(TrackNames(collection, *song), (std::vector<std::string>{"Pattern 01", "Pattern 03"}));
  }
}

TEST(MidiFiles, InfoLineDurationAndDetection) {
  test::ScratchDir scratch;
  std::vector<uint8_t> bytes = Header(1, 2, 96);
  AddTrack(bytes, kTempoTrack);
  AddTrack(bytes, kNoteTrack);
  Collection collection;
  Song* song = ReadBytes(collection, scratch, bytes);
  ASSERT_NE(song, nullptr);
  EXPECT_EQ(SongInfoLine(*song), "Format 1 (multi track), 96 ticks/4th");
  EXPECT_NEAR(SongDurationSeconds(*song), 0.5, 1e-9);  // 96 ticks at 500000 us a quarter
  song->division = 0xE728;  // -25 frames a second, 40 ticks a frame
  EXPECT_EQ(SongInfoLine(*song), "Format 1 (multi track), 40 ticks/frame, 103 frames/s");
  song->format = 7;
  EXPECT_EQ(SongInfoLine(*song).substr(0, 19), "Format 7 (unknown),");

  EXPECT_EQ(DetectMidi(bytes.data(), 0, uint32_t(bytes.size()), bytes.size()), 6);
  const uint8_t riff[] = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'R', 'M', 'I', 'D'};
  EXPECT_EQ(DetectMidi(riff, 0, sizeof riff, sizeof riff), 0);
  int32_t confidence = 0;
  EXPECT_EQ(GetRowExtension(DetectFormatOfHead("song.bin", bytes.data(), uint32_t(bytes.size()), bytes.size(), confidence)),
            "mid");
}

}  // namespace
}  // namespace orlin
