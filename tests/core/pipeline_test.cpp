// Detection, loading, the save choices, backups and "Save all", through the real format table.
#include <gtest/gtest.h>

#include <filesystem>

#include "core/file_object.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "core/save_transaction.h"
#include "formats/common/generic_rows.h"
#include "test_support.h"

namespace orlin {
namespace {

using test::ScratchDir;
using test::ScriptedUserInterface;
using test::ScopedUserInterface;

int32_t RowOf(const std::string& extension, const std::string& description) {
  for (int32_t row = 0; row < kFormatRowCount; ++row)
    if (GetRowExtension(row) == extension && GetRowDescription(row) == description) return row;
  return -1;
}

std::vector<uint8_t> Bytes(size_t count, uint8_t value) { return std::vector<uint8_t>(count, value); }

TEST(Detection, ScoresAndConfidences) {
  int32_t confidence = -1, score = 0;
  const std::vector<uint8_t> text(100, 'a');
  // A file nobody claims falls to row 0 with confidence 0.
  EXPECT_EQ(DetectFormatOfHead("notes.xyz", text.data(), 100, 100, confidence), kUnrecognizedRow);
  EXPECT_EQ(confidence, 0);
  // A matching extension with the common detector: 3 + 2 = 5, 55 %.
  const int32_t row = DetectFormatOfHead("tone.sb", text.data(), 100, 100, confidence, &score);
  EXPECT_EQ(row, RowOf("sb", "Signed bytes (8-bit)"));
  EXPECT_EQ(score, 5);
  EXPECT_EQ(confidence, 55);
  // Two rows of "sw" score alike: the lower wins.
  EXPECT_EQ(DetectFormatOfHead("x.SW", text.data(), 100, 100, confidence),
            RowOf("sw", "Signed words (16-bit) - Little Endian"));
  // A zip signature without its extension: 6, 66 %.
  std::vector<uint8_t> zip = {0x50, 0x4B, 0x03, 0x04, 0, 0};
  EXPECT_EQ(DetectFormatOfHead("archive.bin", zip.data(), uint32_t(zip.size()), zip.size(), confidence), 535);
  EXPECT_EQ(confidence, 66);
  // Nothing at all for an empty file.
  EXPECT_EQ(DetectFormatOfHead("empty.sb", nullptr, 0, 0, confidence), -1);
}

TEST(Detection, ExtensionPatterns) {
  EXPECT_TRUE(ExtensionMatches("*", "anything"));
  EXPECT_TRUE(ExtensionMatches("g72?", "G721"));
  EXPECT_FALSE(ExtensionMatches("g72?", "g72"));
  EXPECT_FALSE(ExtensionMatches("sf2", "sf2pack"));
  EXPECT_TRUE(ExtensionMatches("wav", "WAV"));
  EXPECT_EQ(ExtensionOf("/a.b/c"), "");
  EXPECT_EQ(ExtensionOf("/a/b.tar.gz"), "gz");
}

TEST(FormatTable, LookupsAndCaps) {
  EXPECT_EQ(GetRowDescription(536), "<none>");
  EXPECT_EQ(GetRowDescription(-1), "<none>");
  EXPECT_EQ(GetRowExtension(536), "");
  EXPECT_EQ(FindWriteRow(".SW", kMaskWaveform), RowOf("sw", "Signed words (16-bit) - Little Endian"));
  EXPECT_EQ(FindWriteRow("sw", kMaskInstrument), -1);
  // Read-only rows with no writer of their extension have no caps.
  EXPECT_EQ(GetRowCaps(535), 0u);
  // The read-only AAC row borrows the caps and variant of the first AAC writer after it.
  uint32_t borrowedVariant = 99;
  EXPECT_EQ(GetRowCaps(8, &borrowedVariant), 0x00320000u);
  EXPECT_EQ(borrowedVariant, 0u);
  EXPECT_EQ(GetRowCaps(0), 0u);
  uint32_t variant = 0;
  const int32_t bigEndian = RowOf("sw", "Signed words (16-bit) - Big Endian");
  EXPECT_EQ(GetRowCaps(bigEndian, &variant), 0x00300004u);
  EXPECT_EQ(variant, 0x1000004u);
  EXPECT_TRUE(CanSaveType(bigEndian, 0));
  EXPECT_FALSE(CanSaveType(bigEndian, 4));
  int32_t row = -1, readers = 0;
  while (NextReadRow(row)) ++readers;
  EXPECT_GT(readers, 10);
  // Every extension's rows stand together, as the caps lookup relies on (two table quirks aside).
  for (int32_t at = 1; at < kFormatRowCount; ++at) {
    const std::string extension = GetRowExtension(at);
    if (extension == "mpg" || extension == "vox" || GetRowExtension(at - 1) == extension) continue;
    for (int32_t before = 0; before < at - 1; ++before)
      EXPECT_NE(GetRowExtension(before), extension) << "row " << at;
  }
}

Waveform* MakeWave(Collection& collection, uint8_t channels, uint8_t dataFormat, uint32_t frames = 16) {
  auto* wave = new Waveform(&collection);
  wave->channels = channels;
  wave->length = frames;
  wave->dataFormat = dataFormat;
  float* samples = wave->GetSamplesForWrite();
  for (uint32_t i = 0; i < frames * channels; ++i) samples[i] = float(i % 7) / 8.0f - 0.4f;
  return wave;
}

TEST(SaveChoice, ChannelsAndStorage) {
  Collection collection;
  Waveform* stereo24 = MakeWave(collection, 2, 2);
  SaveOptions mono8{0x00100001, 0, 0.0f, false};
  double rate = 0;
  EXPECT_EQ(ChooseChannels(*stereo24, mono8), 1u);
  EXPECT_EQ(ChooseSaveFormat(*stereo24, mono8, rate), kStoragePcm8);
  // "Auto" over 8 and 16 bits with a 24-bit wave: nothing above 24 bits, so 16.
  SaveOptions pcm8and16{0x00300005, 0, 0.0f, false};
  EXPECT_EQ(ChooseSaveFormat(*stereo24, pcm8and16, rate), kStoragePcm16);
  // A linear wave goes to the next wider linear format the row holds.
  Waveform* mono16 = MakeWave(collection, 1, 1);
  SaveOptions wide{0x00300075, 0, 0.0f, false};  // 8, 16, 24, 32-bit and float
  EXPECT_EQ(ChooseSaveFormat(*mono16, wide, rate), kStoragePcm16);
  EXPECT_EQ(ChooseSaveFormat(*stereo24, wide, rate), kStoragePcm24);
  SaveOptions floatsOnly{0x001000C0, 0, 0.0f, false};
  EXPECT_EQ(ChooseSaveFormat(*stereo24, floatsOnly, rate), kStorageFloat32);
  EXPECT_EQ(ChooseChannels(*mono16, SaveOptions{0x00200004, 0, 0.0f, false}), 2u);
  // Delta rows take delta of the same width.
  EXPECT_EQ(ChooseSaveFormat(*mono16, SaveOptions{0x00118000, 0, 0.0f, false}, rate), kStorageDelta16);
  // Compressed: a 128 kbit/s wave keeps its rate; an explicit wish overrides it.
  Waveform* compressed = MakeWave(collection, 1, 14);
  SaveOptions lossy{0x00320000, 0, 0.0f, false};
  EXPECT_EQ(ChooseSaveFormat(*compressed, lossy, rate), kStorageCompressed);
  EXPECT_EQ(rate, 128.0);
  lossy.rate = 64.0f;
  EXPECT_EQ(ChooseSaveFormat(*compressed, lossy, rate), kStorageCompressed);
  EXPECT_EQ(rate, 64.0);
  auto settings = [](uint32_t index, uint32_t, std::string*) -> double {
    static constexpr double kRates[] = {32, 96, 160};
    return index < 3 ? kRates[index] : 0.0;
  };
  lossy.rate = 100.0f;
  ChooseSaveFormat(*compressed, lossy, rate, settings);
  EXPECT_EQ(rate, 160.0) << "the first entry not below the wish";
  lossy.rate = 500.0f;
  ChooseSaveFormat(*compressed, lossy, rate, settings);
  EXPECT_EQ(rate, 160.0) << "past the list: the last entry";
  // Banks: a codec result wins over linear ones; among linear, the widest.
  SaveOptions bank{0x00302075, 0, 0.0f, false};
  EXPECT_EQ(ChooseGroupSaveFormat({mono16, stereo24}, bank, rate), kStoragePcm24);
  EXPECT_EQ(ChooseGroupSaveFormat({}, bank, rate), kStoragePcm8);
}

TEST(SaveChoice, DialogEntries) {
  Collection collection;
  Waveform* mono16 = MakeWave(collection, 1, 1);
  const int32_t row = RowOf("sw", "Signed words (16-bit) - Little Endian");
  auto data = DataFormatEntries(row, {mono16});
  ASSERT_EQ(data.size(), 2u);
  EXPECT_EQ(data[0].label, "Auto <PCM 16-bit>");
  EXPECT_EQ(data[1].label, "PCM 16-bit");
  auto channels = ChannelEntries(row, {mono16});
  ASSERT_EQ(channels.size(), 3u);
  EXPECT_EQ(channels[0].label, "Auto <Mono>");
  SaveOptions options = DefaultSaveOptions(row);
  ApplySaveComboEntry(row, channels[2], options);
  EXPECT_EQ(options.caps & kCapsChannelMask, kCapsStereo);
  const int32_t dvd = RowOf("dvd-16-48", "LPCM 16-bit 48kHz stereo");
  EXPECT_EQ(ChannelEntries(dvd, {mono16})[0].label, "Auto <Stereo>");
  EXPECT_EQ(SaveDialogMask(&collection), 0x80);
  new Instrument(&collection);
  EXPECT_EQ(SaveDialogMask(&collection), 0x90);
  bool reset = false;
  int32_t chosen = row;
  EXPECT_EQ(ResolveSavePath("/tmp/x", mono16, chosen, reset), "/tmp/x.sw");
  EXPECT_EQ(ResolveSavePath("/tmp/x.f32", mono16, chosen, reset), "/tmp/x.f32");
  EXPECT_TRUE(reset);
  EXPECT_EQ(GetRowExtension(chosen), "f32");
}

TEST(Loading, MessagesAndRawImport) {
  ScratchDir dir;
  ScriptedUserInterface ui;
  ScopedUserInterface scoped(ui);
  Collection collection;
  EXPECT_FALSE(LoadFile(collection, dir.File("missing.sb"), true));
  EXPECT_EQ(LastError(), "Could not open file \"" + dir.File("missing.sb") + "\": No such file or directory");
  test::WriteBytes(dir.File("empty.sb"), {});
  EXPECT_FALSE(LoadFile(collection, dir.File("empty.sb"), true));
  EXPECT_EQ(LastError(), "File is of zero size");
  test::WriteBytes(dir.File("notes.xyz"), Bytes(1000, 'x'));
  EXPECT_FALSE(LoadFile(collection, dir.File("notes.xyz"), false));
  EXPECT_EQ(LastError(), "Not detected as any supported file type");
  EXPECT_FALSE(LoadFile(collection, dir.File("."), true));

  // Row 0 asks, then reads 8-bit mono raw data at 44.1 kHz.
  ResetUnrecognizedAnswers();
  ASSERT_TRUE(LoadFile(collection, dir.File("notes.xyz"), true));
  ASSERT_EQ(ui.questions.size(), 1u);
  EXPECT_NE(ui.questions[0].find("Select OK to read it as raw data"), std::string::npos);
  ASSERT_EQ(collection.CountOf(ItemType::Waveform), 1u);
  Waveform* wave = *collection.All<Waveform>().begin();
  EXPECT_EQ(wave->length, 1000u);
  EXPECT_EQ(wave->sampleRate, 44100u);
  EXPECT_EQ(wave->GetName(), "notes");
  EXPECT_EQ(collection.sourceRow, 0);
  const float* samples = wave->GetSamplesForRead();
  ASSERT_NE(samples, nullptr);
  EXPECT_FLOAT_EQ(samples[0], float('x') / 128.0f);
  // "Skip all" returns without a wave and without asking again.
  ui.answers = {2};
  ASSERT_TRUE(LoadFile(collection, dir.File("notes.xyz"), true));
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 0u);
  ASSERT_TRUE(LoadFile(collection, dir.File("notes.xyz"), true));
  EXPECT_EQ(ui.questions.size(), 2u);
  ResetUnrecognizedAnswers();

  // A zip archive is handed to the desktop, not loaded.
  test::WriteBytes(dir.File("pack.zip"), {0x50, 0x4B, 0x05, 0x06, 0, 0, 0, 0});
  ASSERT_TRUE(LoadFile(collection, dir.File("pack.zip"), true));
  EXPECT_EQ(ui.openedExternally.size(), 1u);
}

TEST(Loading, FolderMergesEveryFileAndPatchesStep) {
  ScratchDir dir;
  test::WriteBytes(dir.File("a.sb"), Bytes(100, 1));
  test::WriteBytes(dir.File("b.sw"), Bytes(100, 2));
  test::WriteBytes(dir.File(".hidden.sb"), Bytes(100, 3));
  Collection collection;
  ASSERT_TRUE(OpenFile(collection, dir.Path().string(), OpenMode::Replace));
  ASSERT_EQ(collection.CountOf(ItemType::Waveform), 2u);
  auto waves = collection.All<Waveform>().ToVector();
  EXPECT_EQ(waves[0]->length, 100u);
  EXPECT_EQ(waves[1]->length, 50u);
  // Both waves still decode from their own files after the merge.
  EXPECT_FLOAT_EQ(waves[0]->GetSamplesForRead()[0], 1.0f / 128.0f);
  EXPECT_FLOAT_EQ(waves[1]->GetSamplesForRead()[0], float(0x0202) / 32768.0f);
}

// Records what the target folder holds while the writer runs.
class FolderWatcher : public ScriptedUserInterface {
 public:
  std::filesystem::path folder;
  std::vector<std::string> seenWhileWriting;
  void SetStatus(std::string_view text, StatusMode mode) override {
    if (text.rfind("Writing: ", 0) == 0)
      for (const auto& entry : std::filesystem::directory_iterator(folder))
        seenWhileWriting.push_back(entry.path().filename().string());
    ScriptedUserInterface::SetStatus(text, mode);
  }
};

TEST(Saving, OldFileStaysWholeAndNoBackupIsMade) {
  ScratchDir dir;
  FolderWatcher ui;
  ScopedUserInterface scoped(ui);
  ui.folder = dir.Path();
  const std::string path = dir.File("out.sw");
  const std::string backup = path + ".bak";
  test::WriteBytes(path, {1, 2, 3, 4});
  // A file of the user's that happens to have the old backup name is never touched.
  test::WriteBytes(backup, {9, 9});
  Collection collection;
  Waveform* wave = MakeWave(collection, 1, 1, 100);
  const int32_t row = RowOf("sw", "Signed words (16-bit) - Little Endian");
  ASSERT_TRUE(SaveWithBackup(wave, path, row, DefaultSaveOptions(row), true));
  // While the writer ran, the old file stood under its own name.
  EXPECT_NE(std::find(ui.seenWhileWriting.begin(), ui.seenWhileWriting.end(), "out.sw"), ui.seenWhileWriting.end());
  EXPECT_EQ(test::ReadBytes(backup), (std::vector<uint8_t>{9, 9}));
  EXPECT_EQ(std::filesystem::file_size(path), 200u);
  EXPECT_EQ(LastSavedPaths(), std::vector<std::string>{path});
  EXPECT_NE(std::find_if(ui.statusLines.begin(), ui.statusLines.end(),
                         [](const std::string& s) { return s.find("Saved: ") == 0 && s.find("(200 Bytes)") != std::string::npos; }),
            ui.statusLines.end());

  // A writer that fails after the file was created: no partial file, the old one is back.
  SaveOptions twelveBit = DefaultSaveOptions(row);
  twelveBit.caps = (twelveBit.caps & ~kCapsStorageMask) | (1u << kStoragePcm12);
  const auto before = test::ReadBytes(path);
  EXPECT_FALSE(SaveWithBackup(wave, path, row, twelveBit, true));
  EXPECT_EQ(test::ReadBytes(path), before);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), {}), 2) << "no temporary is left";
  // With no old file, nothing at all remains.
  EXPECT_FALSE(SaveWithBackup(wave, dir.File("new.sw"), row, twelveBit, false));
  EXPECT_FALSE(std::filesystem::exists(dir.File("new.sw")));
  EXPECT_FALSE(SaveItem(nullptr, row, path, {}));
  EXPECT_EQ(LastError(), "No item selected");
  EXPECT_FALSE(SaveItem(wave, 535, path, {}));
  EXPECT_EQ(LastError(), "Invalid export format selected");
}

TEST(Saving, OverwritingTheSourceDecodesFirst) {
  ScratchDir dir;
  const std::string path = dir.File("loop.sw");
  std::vector<uint8_t> bytes;
  for (int i = 0; i < 200; ++i) bytes.push_back(uint8_t(i)), bytes.push_back(uint8_t(i / 2));
  test::WriteBytes(path, bytes);
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, path, true));
  Waveform* wave = *collection.All<Waveform>().begin();
  EXPECT_EQ(wave->Data(), nullptr) << "loading reads no samples";
  ASSERT_TRUE(SaveWithBackup(wave, path, collection.sourceRow, DefaultSaveOptions(collection.sourceRow), false));
  EXPECT_EQ(test::ReadBytes(path), bytes);
}

TEST(Saving, FileNamesAndSaveAll) {
  EXPECT_EQ(FileNameFromItemName("a:b/c*d?e"), "a_b_c_d_e");
  EXPECT_EQ(FileNameFromItemName(".hidden"), "hidden");
  EXPECT_EQ(FileNameFromItemName("say \"hi\" <x>|y"), "say 'hi' (x),y");
  EXPECT_EQ(FileNameFromItemName("kick.sw"), "kick");
  EXPECT_EQ(FileNameFromItemName(""), "noname");
  EXPECT_EQ(FileNameFromItemName(std::string(300, 'x')).size(), 259u);

  ScratchDir dir;
  ScriptedUserInterface ui;
  ScopedUserInterface scoped(ui);
  Collection collection;
  collection.SetName("Kit");
  for (const char* name : {"Snare", "Kick", "Hat"}) MakeWave(collection, 1, 1, 10)->SetName(name);
  const int32_t row = RowOf("sw", "Signed words (16-bit) - Little Endian");
  SaveAllRequest request{dir.Path().string(), "kit", row, DefaultSaveOptions(row), kSaveAllNumberName, false};
  SaveAllResult result;
  ASSERT_TRUE(SaveAll(collection, request, result));
  EXPECT_EQ(result.message, "Done: Saved 3 files.");
  EXPECT_TRUE(std::filesystem::exists(dir.File("01 - Snare.sw")));
  EXPECT_TRUE(std::filesystem::exists(dir.File("03 - Hat.sw")));
  // Collisions: skip, remembered for the rest.
  ui.answers = {1, 0};
  ASSERT_TRUE(SaveAll(collection, request, result));
  EXPECT_EQ(result.saved, 0);
  EXPECT_EQ(ui.questions.size(), 2u) << "asked once, and once whether to remember";
  // Cancel all.
  ui.answers = {3, 1};
  ASSERT_TRUE(SaveAll(collection, request, result));
  EXPECT_EQ(result.message, "Failed: Cancelled after 0 files.");
  request.mode = kSaveAllBaseNumber;
  request.subFolders = true;
  ASSERT_TRUE(SaveAll(collection, request, result));
  EXPECT_TRUE(std::filesystem::exists(dir.Path() / "kit - 02" / "kit - 02.sw"));
  request.row = 535;
  EXPECT_FALSE(SaveAll(collection, request, result));
}

}  // namespace
}  // namespace orlin

namespace orlin {
namespace {

TEST(Loading, ReplaceWavesTakesSamplesOfTheSameName) {
  ScratchDir dir;
  test::WriteBytes(dir.File("Kick.sb"), std::vector<uint8_t>(50, 0x40));
  Collection collection;
  auto* kick = new Waveform(&collection);
  kick->SetName("Kick");
  kick->length = 10;
  kick->loop = {1, 0, 2.0f, 8.0f, 0.0f};
  auto* snare = new Waveform(&collection);
  snare->SetName("Snare");
  snare->length = 10;
  int replaced = -1;
  ASSERT_TRUE(ReplaceWavesFromFile(collection, dir.File("Kick.sb"), &replaced));
  EXPECT_EQ(replaced, 1);
  EXPECT_EQ(kick->length, 50u);
  EXPECT_EQ(kick->sampleRate, 44100u);
  ASSERT_NE(kick->Data(), nullptr);
  EXPECT_FLOAT_EQ(kick->Data()->samples[0], 0.5f);
  // The new wave has no loop, so the old one stays.
  EXPECT_EQ(kick->loop.type, 1);
  EXPECT_EQ(snare->length, 10u);
}

TEST(Loading, LocateFileSearchOrder) {
  ScratchDir dir;
  std::filesystem::create_directories(dir.Path() / "samples");
  test::WriteBytes(dir.File("samples/a.wav"), {1});
  test::WriteBytes(dir.File("b.wav"), {1});
  const std::string source = dir.File("inst.sfz");
  std::string found;
  ResetLocateFolder();
  ASSERT_TRUE(LocateFile(source, "samples\\a.wav", found));
  EXPECT_EQ(found, dir.File("samples/a.wav"));
  ASSERT_TRUE(LocateFile(source, "C:\\old\\place\\b.wav", found)) << "the file part beside the source";
  EXPECT_EQ(found, dir.File("b.wav"));
  // Not found: the user is asked, and the folder of the answer is kept for the rest of the load.
  ScriptedUserInterface ui;
  ScopedUserInterface scoped(ui);
  test::WriteBytes(dir.File("samples/c.wav"), {1});
  ui.locateAnswers = {dir.File("samples/x.wav")};
  ASSERT_TRUE(LocateFile(source, "x.wav", found));
  ASSERT_TRUE(LocateFile(source, "c.wav", found));
  EXPECT_EQ(found, dir.File("samples/c.wav"));
  EXPECT_FALSE(LocateFile(source, "gone.wav", found)) << "cancel";
}

}  // namespace
}  // namespace orlin

namespace orlin {
namespace {

TEST(Detection, WaveFoundBySignatureUnderAnyName) {
  ORLIN_REQUIRE_TESTDATA();
  const std::string source = (test::TestDataDir() / "audio/generated/dtmf8k/master_f32.wav").string();
  ScratchDir dir;
  std::filesystem::copy_file(source, dir.File("signal.xyz"));
  FileObject file;
  ASSERT_TRUE(file.Open(dir.File("signal.xyz"), FileMode::Read));
  int32_t confidence = 0;
  const int32_t row = DetectFileFormat(dir.File("signal.xyz"), file, confidence);
  EXPECT_EQ(GetRowExtension(row), "wav");
  EXPECT_EQ(confidence, 66);
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, dir.File("signal.xyz"), false));
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 1u);
}

}  // namespace
}  // namespace orlin
