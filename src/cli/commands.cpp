#include "cli/commands.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "cli/process_command.h"
#include "cli/render_note_command.h"

namespace orlin::cli {

int TerminalUserInterface::Ask(std::string_view title, std::string_view question,
                               const std::vector<std::string>& buttons) {
  if (buttons.empty()) return -1;
  if (policy_ == AnswerPolicy::Yes) return 0;
  if (policy_ == AnswerPolicy::No) return buttons.size() > 1 ? 1 : 0;
  if (!isatty(STDIN_FILENO)) {
    // Nobody to ask: the last button, which is the cautious one (cancel, skip all).
    err_ << question << "\n(no terminal to answer on: taking \"" << buttons.back() << "\"; use --yes or --no)\n";
    return int(buttons.size()) - 1;
  }
  err_ << title << ": " << question << "\n";
  for (size_t i = 0; i < buttons.size(); ++i) err_ << "  " << (i + 1) << ") " << buttons[i] << "\n";
  for (;;) {
    err_ << "> " << std::flush;
    std::string line;
    if (!std::getline(std::cin, line)) return int(buttons.size()) - 1;
    try {
      const int choice = std::stoi(line);
      if (choice >= 1 && size_t(choice) <= buttons.size()) return choice - 1;
    } catch (...) {
    }
  }
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
  if (mode == StatusMode::Failure) err_ << text << "\n";
}

void TerminalUserInterface::ProgressTick(uint64_t done, uint64_t total) {
  if (total == 0 || !isatty(STDERR_FILENO)) return;
  const int width = 40;
  const int filled = int(done * width / total);
  err_ << "\r[" << std::string(size_t(filled), '#') << std::string(size_t(width - filled), ' ') << "] "
       << (done * 100 / total) << "%" << (done >= total ? "\n" : "") << std::flush;
}

bool TerminalUserInterface::OpenExternally(const std::string& path) {
  err_ << "an archive is not loaded; open it with your archive tool: " << path << "\n";
  return true;
}

int RunCli(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app{"Orlin Studio command line: read, inspect and convert waveforms, instruments and songs.", "orlin"};
  app.require_subcommand(1);

  bool readable = false, writable = false, formatsJson = false;
  auto* formats = app.add_subcommand("formats", "List the rows of the format table");
  formats->add_flag("--readable", readable, "Only rows that can be read");
  formats->add_flag("--writable", writable, "Only rows that can be written");
  formats->add_flag("--json", formatsJson, "JSON output");

  std::vector<std::string> infoFiles;
  bool infoJson = false;
  auto* info = app.add_subcommand("info", "Detect files and show the items they hold");
  info->add_option("files", infoFiles, "Files to inspect")->required();
  info->add_flag("--json", infoJson, "JSON output");
  bool infoYes = false, infoNo = false;
  info->add_flag("--yes", infoYes, "Answer every question with its first choice (read unknown files as raw)");
  info->add_flag("--no", infoNo, "Answer every question with no / skip");
  std::string infoParams;
  info->add_option("--params", infoParams, "List the parameters of an item: a name, TYPE:N or an id");

  bool paramsJson = false;
  auto* params = app.add_subcommand("params", "List the parameter table");
  params->add_flag("--json", paramsJson, "JSON output");

  std::vector<std::string> settingsArguments;
  auto* settings = app.add_subcommand("settings", "Show or change stored settings: list, get NAME, set NAME VALUE");
  settings->add_option("arguments", settingsArguments, "list | get NAME | set NAME VALUE");

  ConvertRequest convert;
  bool yes = false, no = false;
  auto* convertCommand = app.add_subcommand("convert", "Convert files to another format");
  convertCommand->add_option("inputs", convert.inputs, "Input files")->required();
  auto* to = convertCommand->add_option("--to", convert.toExtension, "Extension of the format to write");
  auto* row = convertCommand->add_option("--row", convert.row, "Row of the format table to write");
  to->excludes(row);
  convertCommand->add_option("-o,--output", convert.output, "Output file, or folder for several outputs");
  convertCommand->add_option("--data-format", convert.dataFormat,
                             "Storage format by name, e.g. \"PCM 24-bit\" (default: automatic)");
  convertCommand->add_option("--channels", convert.channels, "auto, mono or stereo")
      ->check(CLI::IsMember({"auto", "mono", "stereo"}));
  convertCommand
      ->add_option("--save-all", convert.saveAllMode,
                   "Save every instrument, wave or song in its own file: name, number-name, base-number, "
                   "number-base, base-name, source-name, patch-name")
      ->check(CLI::IsMember({"name", "number-name", "base-number", "number-base", "base-name", "source-name",
                             "patch-name"}));
  auto* yesFlag = convertCommand->add_flag("--yes", yes, "Answer every question with its first choice");
  auto* noFlag = convertCommand->add_flag("--no", no, "Answer every question with no / skip");
  yesFlag->excludes(noFlag);

  RenderNoteCommand renderNote(app);
  ProcessCommand process(app);
  const std::function<int()> runStates = AddStatesCommand(app, out, err);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error, out, err);
    return code == 0 ? kExitOk : kExitUsage;
  }

  yes = yes || infoYes;
  no = no || infoNo;
  const AnswerPolicy policy = yes ? AnswerPolicy::Yes : no ? AnswerPolicy::No : AnswerPolicy::Ask;
  TerminalUserInterface ui(policy, err);
  SetUserInterface(&ui);
  struct Restore {
    ~Restore() { SetUserInterface(nullptr); }
  } restore;

  if (renderNote.Selected()) return renderNote.Run(out, err);
  if (const int code = runStates(); code >= 0) return code;
  if (*formats) return RunFormats(readable, writable, formatsJson, out);
  if (*params) return RunParams(paramsJson, out);
  if (*settings) return RunSettings(settingsArguments, out, err);
  if (*info) return RunInfo(infoFiles, infoJson, out, err, infoParams);
  if (process.Chosen()) return process.Run(out, err);
  if (*convertCommand) {
    if (convert.toExtension.empty() && convert.row < 0) {
      err << "convert: give --to EXT or --row N\n";
      return kExitUsage;
    }
    return RunConvert(convert, out, err);
  }
  return kExitUsage;
}

}  // namespace orlin::cli
