// The sub-commands of `orlin`. Exit status: 0 success, 1 a file failed, 2 bad usage.
#pragma once
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/user_interface.h"

namespace CLI {
class App;
}

namespace orlin::cli {

constexpr int kExitOk = 0;
constexpr int kExitFileFailed = 1;
constexpr int kExitUsage = 2;

int RunCli(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

// How questions are answered: by the person at the terminal, or by --yes / --no.
enum class AnswerPolicy { Ask, Yes, No };

// The command line's user interface: prompts on a terminal, fixed answers otherwise, progress on
// standard error. Without a terminal every question takes its cautious answer.
class TerminalUserInterface : public UserInterface {
 public:
  TerminalUserInterface(AnswerPolicy policy, std::ostream& err) : policy_(policy), err_(err) {}
  // --overwrite / -y: yes to replacing files, and to nothing else.
  bool overwrite = false;
  bool verbose = false;
  bool rawImport = false;  // --raw: "read it as raw data" is answered yes
  // "File already exists! Overwrite it?" for an output the user named.
  bool ConfirmOverwrite(const std::string& path);
  ReplaceAnswer AskReplaceFile(const std::string& path) override;
  int Ask(std::string_view title, std::string_view question, const std::vector<std::string>& buttons) override;
  void Warn(std::string_view title, std::string_view text) override;
  bool LocateFile(std::string_view title, std::string_view name, std::string& pathOut) override;
  void SetStatus(std::string_view text, StatusMode mode) override;
  void ProgressTick(uint64_t done, uint64_t total) override;
  bool CancelRequested() override { return false; }
  bool OpenExternally(const std::string& path) override;

 private:
  AnswerPolicy policy_;
  std::ostream& err_;
};

int RunFormats(bool readable, bool writable, bool json, std::ostream& out);
// The parameter table: every row, and the FX slot rows of each effect type.
int RunParams(bool json, std::ostream& out);
// `orlin settings list|get NAME|set NAME VALUE` on the stored settings file.
int RunSettings(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err);
// `paramsItem`: also list the parameters of the items it names (a name, "region:3" the fourth region,
// or an id such as 0x40000000).
int RunInfo(const std::vector<std::string>& files, bool json, std::ostream& out, std::ostream& err,
            const std::string& paramsItem = "", bool raw = false);
// Items of the collection that `selector` names, in insertion order.
std::vector<const Item*> SelectItems(const Collection& collection, const std::string& selector);
// One line per parameter the item offers: id, label, printed value, '*' when set at this level.
std::vector<std::string> DescribeParams(const Item& item);
void ParamsJson(class JsonWriter& json, const Item& item);

struct ConvertRequest {
  std::vector<std::string> inputs;
  std::string toExtension;
  int row = -1;
  std::string output;
  std::string dataFormat;
  std::string channels = "auto";
  std::string saveAllMode;  // empty: one file per input
  bool merge = false;       // open the first input, merge the rest (folders included) into it
  bool inPlace = false;     // the output may be the input
  bool raw = false;         // read an unrecognised file as raw 8-bit data
  int rawRow = -1;          // read every input with this row's reader
  bool json = false;        // a JSON list of what was written on standard output
  bool quiet = false;
};
int RunConvert(const ConvertRequest& request, std::ostream& out, std::ostream& err);
// The installed terminal interface of the running command (null in library use).
TerminalUserInterface* CurrentTerminal();
// Whether an output the user named may be written: yes when nothing is there; otherwise the
// overwrite question (-y/--overwrite, --yes and --no answer it). `replaceAnyway` is a sub-command's
// own old --force, kept for scripts that use it.
bool MayReplaceOutput(const std::string& path, bool replaceAnyway = false);

// Text lines describing the items of a collection as a tree, for `orlin info`.
std::vector<std::string> DescribeTree(const Collection& collection);

}  // namespace orlin::cli
