// The built orlin program as a user meets it, on copies of corpus files: nothing it does may lose a
// file. Each case runs the binary in a shell, as a script would.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "test_support.h"

namespace orlin {
namespace {

namespace fs = std::filesystem;
using test::ReadBytes;
using test::RunCommand;
using test::ScratchDir;

std::string Quote(const std::string& text) { return "'" + text + "'"; }
std::string Orlin() { return test::OrlinProgram() + " "; }

// Names that are not the user's files and not hidden temporaries: what a folder shows a user.
size_t VisibleFiles(const fs::path& folder) {
  size_t count = 0;
  for (const auto& entry : fs::recursive_directory_iterator(folder))
    if (entry.is_regular_file() && entry.path().filename().string()[0] != '.') ++count;
  return count;
}

TEST(SaveSafety, InputsAndExistingFilesAreNeverReplacedUnasked) {
  ORLIN_REQUIRE_TESTDATA();
  ScratchDir dir;
  const std::string wav = dir.File("blip.wav");
  fs::copy_file(test::TestDataDir() / "audio/real/blip.wav", wav);
  const auto original = ReadBytes(wav);
  // Same extension, no -o: the input would be the output, which needs --in-place.
  EXPECT_EQ(RunCommand(Orlin() + "convert " + Quote(wav) + " --to wav --yes </dev/null 2>/dev/null"), 2);
  EXPECT_EQ(ReadBytes(wav), original);
  // An existing output without a terminal to ask on is kept, and so with --no; -y replaces it.
  const std::string out = dir.File("out.w64");
  test::WriteBytes(out, {1, 2, 3});
  test::WriteBytes(out + ".bak", {7, 7});  // the user's own backup
  EXPECT_NE(RunCommand(Orlin() + "convert " + Quote(wav) + " -o " + Quote(out) + " </dev/null 2>/dev/null"), 0);
  EXPECT_NE(RunCommand(Orlin() + "convert --no " + Quote(wav) + " -o " + Quote(out) + " </dev/null 2>/dev/null"), 0);
  EXPECT_EQ(ReadBytes(out), (std::vector<uint8_t>{1, 2, 3}));
  ASSERT_EQ(RunCommand(Orlin() + "convert -y " + Quote(wav) + " -o " + Quote(out) + " </dev/null >/dev/null"), 0);
  EXPECT_GT(fs::file_size(out), 100u);
  EXPECT_EQ(ReadBytes(out + ".bak"), (std::vector<uint8_t>{7, 7}));
  // A read-only output is refused without --force and kept whole.
  test::WriteBytes(dir.File("ro.w64"), {4, 4});
  fs::permissions(dir.File("ro.w64"), fs::perms::owner_read | fs::perms::group_read);
  if (geteuid() != 0) {
    std::string err;
    EXPECT_NE(RunCommand(Orlin() + "convert -y " + Quote(wav) + " -o " + Quote(dir.File("ro.w64")) + " 2>&1", &err), 0);
    EXPECT_NE(err.find("read-only"), std::string::npos) << err;
    EXPECT_EQ(ReadBytes(dir.File("ro.w64")), (std::vector<uint8_t>{4, 4}));
  }
  // sox reads what we wrote.
  if (test::HaveTool("sox")) {
    EXPECT_EQ(RunCommand("sox " + Quote(out) + " -n stat 2>/dev/null"), 0);
  }
  // A known row without a reader fails with its name; an unknown file is no noise "wave" unless asked.
  std::string message;
  fs::copy_file(test::TestDataDir() / "akai/M.BASS.akp", dir.File("m.akp"));
  EXPECT_EQ(RunCommand(Orlin() + "info --json " + Quote(dir.File("m.akp")) + " 2>&1", &message), 1);
  EXPECT_NE(message.find("AKAI S5000 program (.akp, row 20) is recognised but cannot be read yet"), std::string::npos)
      << message;
  EXPECT_NE(message.find("\"loaded\":false"), std::string::npos) << message;
  std::ofstream(dir.File("notes.txt2")) << "plain words, no audio at all\n";
  EXPECT_EQ(RunCommand(Orlin() + "convert --yes " + Quote(dir.File("notes.txt2")) + " --to wav -o " +
                       Quote(dir.File("n.wav")) + " 2>/dev/null"),
            1);
  EXPECT_FALSE(fs::exists(dir.File("n.wav")));
  EXPECT_EQ(RunCommand(Orlin() + "convert --raw " + Quote(dir.File("notes.txt2")) + " --to wav -o " +
                       Quote(dir.File("n.wav")) + " >/dev/null 2>&1"),
            0);
}

TEST(SaveSafety, KilledAndConcurrentSavesLeaveWholeFiles) {
  ORLIN_REQUIRE_TESTDATA();
  ScratchDir dir;
  const std::string bank = dir.File("bank.sf2");
  fs::copy_file(test::TestDataDir() / "soundfont/TimGM6mb.sf2", bank);
  const std::string out = dir.File("out.sf2");
  ASSERT_EQ(RunCommand(Orlin() + "convert -y " + Quote(bank) + " -o " + Quote(out) + " >/dev/null 2>&1"), 0);
  const auto whole = ReadBytes(out);
  auto temporaries = [&] {
    int count = 0;
    for (const auto& entry : fs::directory_iterator(dir.Path()))
      count += entry.path().filename().string().find(".orlin-") != std::string::npos;
    return count;
  };
  // Starts the save in a child and sends it `signal` after `delayMs`.
  auto interruptSave = [&](int signal, int delayMs) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // exec: the shell becomes orlin, so the signal reaches the save itself.
      execl("/bin/sh", "sh", "-c", ("exec " + Orlin() + "convert -y " + Quote(bank) + " -o " + Quote(out) + " >/dev/null 2>&1").c_str(),
            nullptr);
      _exit(127);
    }
    usleep(useconds_t(delayMs) * 1000);
    kill(child, signal);
    waitpid(child, nullptr, 0);
  };
  // kill -9 at several points of a save: the target is always the old whole file.
  for (int delayMs : {5, 40, 150, 400}) {
    interruptSave(SIGKILL, delayMs);
    EXPECT_EQ(ReadBytes(out), whole) << "after " << delayMs << " ms";
  }
  // A kill -9 leaves its temporary; the next save to that name sweeps it.
  ASSERT_EQ(RunCommand(Orlin() + "convert -y " + Quote(bank) + " -o " + Quote(out) + " >/dev/null 2>&1"), 0);
  EXPECT_EQ(temporaries(), 0);
  // Ctrl-C, SIGTERM or a closed terminal during a save: the target is the old whole file and no
  // temporary is left behind for a later save to sweep.
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
    for (int delayMs : {20, 60, 120}) {
      interruptSave(signal, delayMs);
      EXPECT_EQ(ReadBytes(out), whole) << "signal " << signal << " after " << delayMs << " ms";
      EXPECT_EQ(temporaries(), 0) << "signal " << signal << " after " << delayMs << " ms";
    }
  }
  // Four saves at once to one name: one whole file, no splice.
  std::string four;
  for (int i = 0; i < 4; ++i) four += Orlin() + "convert -y " + Quote(bank) + " -o " + Quote(out) + " >/dev/null 2>&1 & ";
  ASSERT_EQ(RunCommand(four + "wait"), 0);
  EXPECT_EQ(ReadBytes(out), whole);
}

TEST(SaveSafety, FullDiskInAKitSaveLeavesTheOldKitWhole) {
  ORLIN_REQUIRE_TESTDATA();
  ScratchDir dir;
  const std::string bank = dir.File("bank.sf2");
  fs::copy_file(test::TestDataDir() / "soundfont/fluidsynth-testdata/DMOD.sf2", bank);
  const fs::path kit = dir.Path() / "kit";
  ASSERT_EQ(RunCommand(Orlin() + "convert -y " + Quote(bank) + " --to sfz -o " + Quote((kit / "kit.sfz").string()) +
                       " >/dev/null 2>&1"),
            0);
  std::vector<std::pair<fs::path, std::vector<uint8_t>>> before;
  for (const auto& entry : fs::recursive_directory_iterator(kit))
    if (entry.is_regular_file()) before.emplace_back(entry.path(), ReadBytes(entry.path().string()));
  ASSERT_GT(before.size(), 1u);
  // A file-size limit of 8 KiB stands in for a full disk: the save fails and changes nothing.
  EXPECT_NE(RunCommand("ulimit -f 8; " + Orlin() + "convert -y --data-format 'PCM 24-bit' " + Quote(bank) +
                       " --to sfz -o " + Quote((kit / "kit.sfz").string()) + " >/dev/null 2>&1"),
            0);
  for (const auto& [path, bytes] : before) EXPECT_EQ(ReadBytes(path.string()), bytes) << path;
  EXPECT_EQ(VisibleFiles(kit), before.size());
  // Re-saving the kit from itself into its own folder keeps every wave's samples.
  ASSERT_EQ(RunCommand(Orlin() + "convert -y --in-place " + Quote((kit / "kit.sfz").string()) + " --to sfz -o " +
                       Quote((kit / "kit.sfz").string()) + " >/dev/null 2>&1"),
            0);
  for (const auto& [path, bytes] : before)
    if (path.extension() == ".wav") {
      EXPECT_EQ(fs::file_size(path), bytes.size()) << path;
    }
}

TEST(SaveSafety, OverwriteQuestionOnATerminal) {
  ORLIN_REQUIRE_TOOL("python3");
  ORLIN_REQUIRE_TESTDATA();
  ScratchDir dir;
  fs::copy_file(test::TestDataDir() / "audio/real/blip.wav", dir.File("in.wav"));
  // A pseudo-terminal answers the question: "n" keeps the file, "y" replaces it.
  const std::string script = R"(
import os, pty, sys
def run(answer):
    pid, fd = pty.fork()
    if pid == 0:
        os.execv(sys.argv[1], ['orlin', 'convert', sys.argv[2], '--to', 'w64', '-o', sys.argv[3]])
    seen = b''
    while b'[y/N]' not in seen:
        seen += os.read(fd, 1024)
    os.write(fd, answer + b'\n')
    try:
        while os.read(fd, 1024): pass
    except OSError:
        pass
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
print(run(b'n'), os.path.getsize(sys.argv[3]), run(b'y'), os.path.getsize(sys.argv[3]) > 3)
)";
  std::ofstream(dir.File("ask.py")) << script;
  test::WriteBytes(dir.File("out.w64"), {1, 2, 3});
  std::string output;
  ASSERT_EQ(RunCommand("python3 " + Quote(dir.File("ask.py")) + " " + test::OrlinProgram() + " " +
                       Quote(dir.File("in.wav")) + " " + Quote(dir.File("out.w64")), &output), 0);
  EXPECT_EQ(output, "1 3 0 True\n");
}

TEST(SaveSafety, AFolderOfKitsMergesIntoOneBank) {
  ORLIN_REQUIRE_TESTDATA();
  ScratchDir dir;
  const std::string bank = (test::TestDataDir() / "soundfont/TimGM6mb.sf2").string();
  // One SFZ file per instrument (about 5 s: every file is synced before it is renamed into place).
  ASSERT_EQ(RunCommand(Orlin() + "convert -q " + Quote(bank) + " --to sfz -o " + Quote(dir.File("kits/gm.sfz"))), 0);
  ASSERT_EQ(RunCommand(Orlin() + "convert -q " + Quote(dir.File("kits")) + " --merge --to sf2 -o " +
                       Quote(dir.File("merged.sf2"))),
            0);
  std::string original, merged;
  RunCommand(Orlin() + "info " + Quote(bank) + " | grep -c '^  instrument '", &original);
  RunCommand(Orlin() + "info " + Quote(dir.File("merged.sf2")) + " | grep -c '^  instrument '", &merged);
  EXPECT_EQ(merged, original);
  EXPECT_GT(std::stoi(original), 100);
  // Several inputs to one file name without --merge are refused.
  EXPECT_EQ(RunCommand(Orlin() + "convert " + Quote(dir.File("kits")) + " --to sf2 -o " + Quote(dir.File("two.sf2")) +
                       " 2>/dev/null"),
            2);
  EXPECT_FALSE(fs::exists(dir.File("two.sf2")));
}

}  // namespace
}  // namespace orlin
