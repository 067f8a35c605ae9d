// The orlin program as a script would use it: listings, inspection, conversion and exit codes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/commands.h"
#include "test_support.h"

namespace orlin {
namespace {

using test::RunCommand;
using test::ScratchDir;

int RunOrlin(std::vector<const char*> args, std::string* out = nullptr, std::string* err = nullptr) {
  args.insert(args.begin(), "orlin");
  std::ostringstream outStream, errStream;
  const int status = cli::RunCli(int(args.size()), args.data(), outStream, errStream);
  if (out) *out = outStream.str();
  if (err) *err = errStream.str();
  return status;
}

TEST(CommandLine, FormatsJsonHasEveryRowWithTheTabledValues) {
  ORLIN_REQUIRE_TOOL("python3");
  // Python's json module reads what we wrote and checks the rows whose values are fixed.
  const std::string check = R"(
import json, sys
rows = json.load(sys.stdin)
assert len(rows) == 536, len(rows)
want = {0: ('*', 'Unrecognized', True, False, 0x01, 0x00000000, 0x0),
        3: ('3gp', '3GPP', None, None, 0x01, 0x00120000, 0x1408),
        9: ('aac', 'MPEG 2 AAC - Low Complexity', False, True, 0x01, 0x00320000, 0x0),
        10: ('aac', 'MPEG 2 AAC - Main Profile', False, True, 0x01, 0x00320000, 0x1),
        15: ('aif', 'Audio interchange', None, None, 0x01, 0x00300035, 0x0),
        32: ('au', 'Sun/NeXT/DEC audio', None, None, 0x01, 0x00300375, 0x0),
        65: ('dls', 'DownLoadable Sounds level 2+', False, None, 0x91, 0x02122375, 0x3),
        233: ('mid', 'Standard MIDI', None, None, 0x60, 0x00080000, 0x0),
        310: ('pcg', 'Korg Trinity bank - Bank C..D', False, None, 0x90, 0x02100005, 0x23B),
        385: ('sf2', 'SoundFont v2 bank', None, None, 0x91, 0x02100014, 0x0),
        387: ('sf3', 'Compressed SoundFont', None, None, 0x91, 0x02120014, 0x3),
        441: ('txt', 'Ascii text parameter descriptions', False, None, 0xF3, 0x00040000, 0x0),
        535: ('zip', 'ZIP archive', True, False, 0x00, 0x00000000, 0x0)}
# The data formats a row offers are all listed: the WAVE row has PCM and its MP3 settings alike.
wav = rows[484]['dataFormats']
assert 'PCM 16-bit' in wav and 'ADPCM 4-bit' in wav and any(f.startswith('MP3') for f in wav), wav
assert rows[385]['items'] == ['waveform', 'instrument', 'collection'], rows[385]['items']
for i, r in enumerate(rows):
    assert r['index'] == i
for i, (ext, desc, rd, wr, mask, caps, var) in want.items():
    r = rows[i]
    got = (r['extension'], r['description'], r['mask'], r['caps'], r['variant'])
    assert got == (ext, desc, mask, caps, var), (i, got)
    assert rd is None or r['read'] == rd, i
    assert wr is None or r['write'] == wr, i
print('ok')
)";
  ScratchDir dir;
  std::ofstream(dir.File("check.py")) << check;
  std::string output;
  EXPECT_EQ(RunCommand(test::OrlinProgram() + " formats --json | python3 " + dir.File("check.py") + " 2>&1", &output), 0)
      << output;
  EXPECT_EQ(output, "ok\n");

  std::string writable;
  ASSERT_EQ(RunOrlin({"formats", "--writable"}, &writable), cli::kExitOk);
  EXPECT_NE(writable.find("Signed words (16-bit) - Big Endian"), std::string::npos);
  EXPECT_EQ(writable.find("ZIP archive"), std::string::npos);
}

TEST(CommandLine, ConvertRawToOtherRawAndSox) {
  ScratchDir dir;
  // A 16-bit little-endian ramp, converted to big-endian words and to floats.
  std::vector<uint8_t> bytes;
  for (int i = 0; i < 1000; ++i) {
    const int16_t value = int16_t((i * 61) - 30000);
    bytes.push_back(uint8_t(value & 0xFF));
    bytes.push_back(uint8_t((value >> 8) & 0xFF));
  }
  test::WriteBytes(dir.File("ramp.sw"), bytes);
  std::string out, err;
  ASSERT_EQ(RunOrlin({"convert", dir.File("ramp.sw").c_str(), "--to", "f32", "-o", dir.File("ramp.f32").c_str()}, &out, &err),
            cli::kExitOk)
      << err;
  EXPECT_EQ(std::filesystem::file_size(dir.File("ramp.f32")), 4000u);
  ASSERT_EQ(RunOrlin({"convert", dir.File("ramp.sw").c_str(), "--row", "427", "-o", dir.File("ramp_be.sw").c_str()}), 0);
  const auto swapped = test::ReadBytes(dir.File("ramp_be.sw"));
  ASSERT_EQ(swapped.size(), bytes.size());
  for (size_t i = 0; i < bytes.size(); i += 2) {
    EXPECT_EQ(swapped[i], bytes[i + 1]);
    EXPECT_EQ(swapped[i + 1], bytes[i]);
  }
  // sox reads our floats back to the same 16-bit values.
  if (test::HaveTool("sox")) {
    ASSERT_EQ(RunCommand("sox -D -t f32 -r 44100 -c 1 " + dir.File("ramp.f32") + " -t s16 -e signed " + dir.File("sox.raw")), 0);
    EXPECT_EQ(test::ReadBytes(dir.File("sox.raw")), bytes);
  }
  // A data format the row cannot hold is refused with the list of what it can.
  EXPECT_EQ(RunOrlin({"convert", dir.File("ramp.sw").c_str(), "--to", "f32", "--data-format", "PCM 24-bit"}, &out, &err),
            cli::kExitUsage);
  EXPECT_NE(err.find("Float 32-bit"), std::string::npos);
  // Narrowing to 8-bit unsigned bytes by name.
  ASSERT_EQ(RunOrlin({"convert", dir.File("ramp.sw").c_str(), "--to", "ub", "--channels", "stereo", "-o", dir.File("r.ub").c_str()}), 0);
  EXPECT_EQ(std::filesystem::file_size(dir.File("r.ub")), 2000u);
}

TEST(CommandLine, ExitStatusAndInfo) {
  ScratchDir dir;
  std::string out, err;
  EXPECT_EQ(RunOrlin({"convert"}, &out, &err), cli::kExitUsage);
  EXPECT_EQ(RunOrlin({"nonsense"}, &out, &err), cli::kExitUsage);
  EXPECT_EQ(RunOrlin({"convert", dir.File("missing.sw").c_str(), "--to", "f32"}, &out, &err), cli::kExitFileFailed);
  EXPECT_NE(err.find("Could not open file"), std::string::npos);
  EXPECT_EQ(RunOrlin({"convert", dir.File("missing.sw").c_str(), "--to", "nosuchformat"}, &out, &err), cli::kExitFileFailed);
  test::WriteBytes(dir.File("a.sb"), std::vector<uint8_t>(64, 0x10));
  EXPECT_EQ(RunOrlin({"convert", dir.File("a.sb").c_str(), "--to", "nosuchformat"}, &out, &err), cli::kExitUsage);
  // One bad file among good ones: the others are still converted, and the status says a file failed.
  test::WriteBytes(dir.File("b.sb"), std::vector<uint8_t>(64, 0x20));
  EXPECT_EQ(RunOrlin({"convert", dir.File("a.sb").c_str(), dir.File("missing.sb").c_str(), dir.File("b.sb").c_str(), "--to",
                 "sw", "-o", dir.Path().c_str()},
                &out, &err),
            cli::kExitFileFailed);
  EXPECT_TRUE(std::filesystem::exists(dir.File("a.sw")));
  EXPECT_TRUE(std::filesystem::exists(dir.File("b.sw")));

  ASSERT_EQ(RunOrlin({"info", dir.File("a.sb").c_str()}, &out, &err), cli::kExitOk);
  EXPECT_NE(out.find("sb - Signed bytes (8-bit) (row 370, confidence 55%)"), std::string::npos) << out;
  EXPECT_NE(out.find("64 frames, 44100 Hz, 1 ch, 8 bits, PCM 8-bit"), std::string::npos) << out;
  ASSERT_EQ(RunOrlin({"info", "--json", dir.File("a.sb").c_str()}, &out, &err), cli::kExitOk);
  EXPECT_NE(out.find("\"frames\":64"), std::string::npos) << out;
}

}  // namespace
}  // namespace orlin
