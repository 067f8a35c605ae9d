#include "cli/commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <iostream>

#include "cli/command_registry.h"
#include "core/save_transaction.h"

namespace orlin::cli {

namespace {

TerminalUserInterface* currentTerminal = nullptr;

bool HaveTerminal() { return isatty(STDIN_FILENO) && isatty(STDERR_FILENO); }

// Reads a numbered choice from the terminal; the last button when input ends.
int PromptChoice(std::ostream& err, std::string_view title, std::string_view question,
                 const std::vector<std::string>& buttons) {
  err << title << ": " << question << "\n";
  for (size_t i = 0; i < buttons.size(); ++i) err << "  " << (i + 1) << ") " << buttons[i] << "\n";
  for (;;) {
    err << "> " << std::flush;
    std::string line;
    if (!std::getline(std::cin, line)) return int(buttons.size()) - 1;
    const int choice = std::atoi(line.c_str());
    if (choice >= 1 && size_t(choice) <= buttons.size()) return choice - 1;
  }
}

}  // namespace

TerminalUserInterface* CurrentTerminal() { return currentTerminal; }

int TerminalUserInterface::Ask(std::string_view title, std::string_view question,
                               const std::vector<std::string>& buttons) {
  if (buttons.empty()) return -1;
  if (rawImport && title == "Unrecognized file") return 0;
  if (policy_ == AnswerPolicy::Yes) return 0;
  if (policy_ == AnswerPolicy::No) return buttons.size() > 1 ? 1 : 0;
  if (!HaveTerminal()) {
    // Nobody to ask: the last button, which is the cautious one (cancel, skip all).
    err_ << question << "\n(no terminal to answer on: taking \"" << buttons.back() << "\"; use --yes or --no)\n";
    return int(buttons.size()) - 1;
  }
  return PromptChoice(err_, title, question, buttons);
}

bool TerminalUserInterface::ConfirmOverwrite(const std::string& path) {
  if (overwrite || policy_ == AnswerPolicy::Yes) return true;
  if (policy_ == AnswerPolicy::No) return false;
  if (!HaveTerminal()) {
    err_ << "orlin: \"" << path << "\" exists and was not replaced (no terminal to ask on; -y replaces it)\n";
    return false;
  }
  err_ << "File already exists! Overwrite it? \"" << path << "\" [y/N] " << std::flush;
  std::string line;
  if (!std::getline(std::cin, line)) return false;
  return !line.empty() && (line[0] == 'y' || line[0] == 'Y');
}

bool MayReplaceOutput(const std::string& path, bool replaceAnyway) {
  struct stat existing;
  if (::stat(path.c_str(), &existing) != 0 || !S_ISREG(existing.st_mode) || replaceAnyway) return true;
  TerminalUserInterface* terminal = CurrentTerminal();
  return terminal && terminal->ConfirmOverwrite(path);
}

ReplaceAnswer TerminalUserInterface::AskReplaceFile(const std::string& path) {
  if (overwrite || policy_ == AnswerPolicy::Yes) return ReplaceAnswer::Replace;
  // Without a terminal, and with --no, the user's file is kept and ours takes a free name.
  if (policy_ == AnswerPolicy::No || !HaveTerminal()) {
    err_ << "orlin: kept \"" << path << "\", which this save did not make; the new file takes a free name\n";
    return ReplaceAnswer::KeepAndRename;
  }
  const int answer = PromptChoice(err_, "File already exists!", "\"" + path + "\" was not made by this save.",
                                  {"Replace it", "Keep it, write under a new name", "Cancel the save"});
  return answer == 0 ? ReplaceAnswer::Replace : answer == 1 ? ReplaceAnswer::KeepAndRename : ReplaceAnswer::Cancel;
}

void TerminalUserInterface::Warn(std::string_view title, std::string_view text) {
  err_ << title << ": " << text << "\n";
}

bool TerminalUserInterface::LocateFile(std::string_view title, std::string_view name, std::string& pathOut) {
  if (policy_ != AnswerPolicy::Ask || !isatty(STDIN_FILENO)) {
    err_ << "missing file: " << name << "\n";
    return false;
  }
  err_ << title << "\npath (empty to skip): " << std::flush;
  std::getline(std::cin, pathOut);
  return !pathOut.empty();
}

void TerminalUserInterface::SetStatus(std::string_view text, StatusMode mode) {
  if (mode == StatusMode::Failure || (verbose && !text.empty())) err_ << text << "\n";
}

void TerminalUserInterface::ProgressTick(uint64_t done, uint64_t total) {
  // A bar only on a terminal, and only for work that has run over a second.
  using Clock = std::chrono::steady_clock;
  static Clock::time_point started;
  if (done == 0 || started == Clock::time_point()) started = Clock::now();
  if (total == 0 || !isatty(STDERR_FILENO) || Clock::now() - started < std::chrono::seconds(1)) return;
  const int width = 40;
  const int filled = int(done * width / total);
  err_ << "\r[" << std::string(size_t(filled), '#') << std::string(size_t(width - filled), ' ') << "] "
       << (done * 100 / total) << "%" << (done >= total ? "\n" : "") << std::flush;
}

bool TerminalUserInterface::OpenExternally(const std::string& path) {
  err_ << "an archive is not loaded; open it with your archive tool: " << path << "\n";
  return true;
}

namespace {

size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace

int RunCli(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  RemoveTemporariesOnInterrupt();
  CLI::App app{"Orlin Studio command line: read, inspect and convert waveforms, instruments and songs.", "orlin"};
  app.require_subcommand(1);
  app.fallthrough();
  app.set_version_flag("--version", std::string("orlin (Orlin Studio) ") + kOrlinVersion);
  GlobalOptions global;
  auto* yesFlag = app.add_flag("--yes", global.yes, "Answer every question with its first choice");
  auto* noFlag = app.add_flag("--no", global.no, "Answer every question with no; never replace a file");
  yesFlag->excludes(noFlag);
  app.add_flag("-y,--overwrite", global.overwrite, "Replace existing output files without asking (and nothing else)");
  app.add_flag("--force", global.force, "Also replace output files that are read-only");
  app.add_flag("-q,--quiet", global.quiet, "Print only errors");
  app.add_flag("-v,--verbose", global.verbose, "Print what each step does");

  // Each sub-command lives in src/cli/<name>_command.cpp and has one Add...Command function that adds
  // its options to `app` and returns what runs it. A new sub-command is one more line here.
  std::vector<std::pair<CLI::App*, CommandRunner>> commands;
  for (CommandAdder add : {AddFormatsCommand, AddInfoCommand, AddParamsCommand, AddSettingsCommand, AddConvertCommand,
                           AddProcessCommand, AddRenderNoteCommand, AddStatesCommand})
    commands.push_back(add(app, global, out, err));

  // A mistyped sub-command is named, with the nearest one.
  if (argc > 1 && argv[1][0] != '-') {
    const std::string given = argv[1];
    std::string nearest;
    size_t best = SIZE_MAX;
    bool known = false;
    for (const auto& [command, runner] : commands) {
      known = known || command->get_name() == given;
      const size_t distance = EditDistance(given, command->get_name());
      if (distance < best) best = distance, nearest = command->get_name();
    }
    if (!known) {
      err << "orlin: unknown sub-command \"" << given << "\"";
      if (best <= 3) err << "; did you mean \"" << nearest << "\"?";
      err << "\nRun 'orlin --help' for the list.\n";
      return kExitUsage;
    }
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error, out, err);
    return code == 0 ? kExitOk : kExitUsage;
  }

  const AnswerPolicy policy = global.yes ? AnswerPolicy::Yes : global.no ? AnswerPolicy::No : AnswerPolicy::Ask;
  TerminalUserInterface ui(policy, err);
  ui.overwrite = global.overwrite;
  ui.verbose = global.verbose;
  SetReplaceReadOnly(global.force);
  SetUserInterface(&ui);
  currentTerminal = &ui;
  struct Restore {
    ~Restore() {
      SetUserInterface(nullptr);
      SetReplaceReadOnly(false);
      currentTerminal = nullptr;
    }
  } restore;

  for (auto& [command, runner] : commands)
    if (*command) return runner();
  return kExitUsage;
}

}  // namespace orlin::cli
