// How sub-commands join `orlin`: each file src/cli/<name>_command.cpp defines one Add<Name>Command
// that adds its sub-command and options to the application and returns the function that runs it
// once the command line is parsed. RunCli lists the Add functions; the options every command shares
// (answers to questions, --force, -q, -v) are parsed before any runs.
#pragma once
#include <functional>
#include <ostream>

namespace CLI {
class App;
}

namespace orlin::cli {

inline constexpr const char* kOrlinVersion = "12.0";

struct GlobalOptions {
  bool yes = false;
  bool no = false;
  bool overwrite = false;
  bool force = false;
  bool quiet = false;
  bool verbose = false;
};

using CommandRunner = std::function<int()>;
using CommandAdder = std::pair<CLI::App*, CommandRunner> (*)(CLI::App& app, const GlobalOptions& global,
                                                              std::ostream& out, std::ostream& err);

std::pair<CLI::App*, CommandRunner> AddFormatsCommand(CLI::App&, const GlobalOptions&, std::ostream&, std::ostream&);
std::pair<CLI::App*, CommandRunner> AddInfoCommand(CLI::App&, const GlobalOptions&, std::ostream&, std::ostream&);
std::pair<CLI::App*, CommandRunner> AddParamsCommand(CLI::App&, const GlobalOptions&, std::ostream&, std::ostream&);
std::pair<CLI::App*, CommandRunner> AddSettingsCommand(CLI::App&, const GlobalOptions&, std::ostream&, std::ostream&);
std::pair<CLI::App*, CommandRunner> AddConvertCommand(CLI::App&, const GlobalOptions&, std::ostream&, std::ostream&);
std::pair<CLI::App*, CommandRunner> AddProcessCommand(CLI::App&, const GlobalOptions&, std::ostream&, std::ostream&);
std::pair<CLI::App*, CommandRunner> AddRenderNoteCommand(CLI::App&, const GlobalOptions&, std::ostream&, std::ostream&);
std::pair<CLI::App*, CommandRunner> AddStatesCommand(CLI::App&, const GlobalOptions&, std::ostream&, std::ostream&);

}  // namespace orlin::cli
