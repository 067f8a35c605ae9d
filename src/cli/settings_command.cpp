// `orlin settings`: list, read or change the stored settings file of this user, through the same
// record and rules the program uses at start and exit.
#include <CLI/CLI.hpp>
#include <memory>

#include "cli/command_registry.h"
#include "cli/commands.h"
#include "core/last_error.h"
#include "core/settings.h"

namespace orlin::cli {

int RunSettings(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err) {
  LoadSettings();
  const std::string verb = arguments.empty() ? "list" : arguments[0];
  if (verb == "list" && arguments.size() <= 1) {
    out << "# " << SettingsFilePath() << "\n" << FormatSettingsText(GetSettings());
    return kExitOk;
  }
  if (verb == "get" && arguments.size() == 2) {
    std::string value;
    if (!GetSettingText(GetSettings(), arguments[1], value)) {
      err << "settings: unknown name " << arguments[1] << "\n";
      return kExitUsage;
    }
    out << value << "\n";
    return kExitOk;
  }
  if (verb == "set" && arguments.size() == 3) {
    if (!SetSettingText(GetSettings(), arguments[1], arguments[2])) {
      err << "settings: cannot set " << arguments[1] << " to " << arguments[2] << "\n";
      return kExitUsage;
    }
    if (!SaveSettings()) {
      err << LastError() << "\n";
      return kExitFileFailed;
    }
    return kExitOk;
  }
  err << "settings: use list, get NAME or set NAME VALUE\n";
  return kExitUsage;
}

}  // namespace orlin::cli

namespace orlin::cli {

std::pair<CLI::App*, CommandRunner> AddSettingsCommand(CLI::App& app, const GlobalOptions&, std::ostream& out,
                                                        std::ostream& err) {
  auto arguments = std::make_shared<std::vector<std::string>>();
  auto* command = app.add_subcommand("settings", "Show or change stored settings: list, get NAME, set NAME VALUE");
  command->add_option("arguments", *arguments, "list | get NAME | set NAME VALUE");
  return {command, [arguments, &out, &err] { return RunSettings(*arguments, out, err); }};
}

}  // namespace orlin::cli
