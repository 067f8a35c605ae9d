// Everything the core asks of a person goes through this interface: the desktop program answers
// with dialogs, the command line with prompts and --yes/--no, tests with a scripted fake.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace orlin {

// Modes of the status line: plain text, a failure, a progress label, a progress tick.
enum class StatusMode { Plain = 0, Failure = 2, ProgressLabel = 3, Tick = 4 };

// Answers to "a file this save did not create stands where it would write".
enum class ReplaceAnswer { Replace = 0, KeepAndRename = 1, Cancel = 2 };

class UserInterface {
 public:
  virtual ~UserInterface() = default;

  // Asks `question` with the given button labels; returns the index of the chosen one, or -1 when
  // the question was dismissed (treated as the last, cancelling, button by callers).
  virtual int Ask(std::string_view title, std::string_view question, const std::vector<std::string>& buttons) = 0;
  virtual void Warn(std::string_view title, std::string_view text) = 0;
  // Lets the user find a missing file; false on cancel.
  virtual bool LocateFile(std::string_view title, std::string_view name, std::string& pathOut) = 0;
  virtual void SetStatus(std::string_view text, StatusMode mode) = 0;
  // Progress of a long operation, `done` of `total`; also the place to pump a cancel request.
  virtual void ProgressTick(uint64_t done, uint64_t total) = 0;
  virtual bool CancelRequested() = 0;
  // Hands a path to the desktop's opener (zip archives).
  virtual bool OpenExternally(const std::string& path) = 0;
  // Asks for a path to save an item to, starting from `suggestedPath`; false on cancel.
  virtual bool AskSavePath(std::string_view title, const std::string& suggestedPath, std::string& pathOut) {
    return false;
  }
  // A save is about to replace `path`, a file it did not create (a wave beside an instrument being
  // written): replace it, keep it and write under a free name beside it, or cancel the save.
  virtual ReplaceAnswer AskReplaceFile(const std::string& path) {
    const int answer = Ask("File already exists!", "\"" + path + "\" already exists and was not made by this save.",
                           {"Replace it", "Keep it, write under a new name", "Cancel the save"});
    return answer == 0 ? ReplaceAnswer::Replace : answer == 1 ? ReplaceAnswer::KeepAndRename : ReplaceAnswer::Cancel;
  }
};

// Answers without a person: every question takes its first button, nothing is located, nothing is
// shown. The library uses it until a front end installs its own.
class SilentUserInterface : public UserInterface {
 public:
  int Ask(std::string_view, std::string_view, const std::vector<std::string>&) override { return 0; }
  void Warn(std::string_view, std::string_view) override {}
  bool LocateFile(std::string_view, std::string_view, std::string&) override { return false; }
  void SetStatus(std::string_view, StatusMode) override {}
  void ProgressTick(uint64_t, uint64_t) override {}
  bool CancelRequested() override { return false; }
  bool OpenExternally(const std::string&) override { return false; }
  // Nobody to ask: a file the save did not make is kept.
  ReplaceAnswer AskReplaceFile(const std::string&) override { return ReplaceAnswer::KeepAndRename; }
};

// The process's current interface; never null.
UserInterface& Ui();
// Installs `ui` (not owned); null restores the silent one.
void SetUserInterface(UserInterface* ui);

// Short forms used throughout the core.
inline void SetStatus(std::string_view text, StatusMode mode = StatusMode::Plain) { Ui().SetStatus(text, mode); }

}  // namespace orlin
