// `orlin process`: the processing frame on files, and the listing of its algorithm tables.
#pragma once
#include <ostream>
#include <string>
#include <vector>

#include "cli/commands.h"

namespace CLI {
class App;
}

namespace orlin::cli {

struct ProcessRequest {
  std::vector<std::string> inputs;
  std::vector<std::string> algorithms;  // a chain, run in order
  std::vector<std::string> settings;    // KEY=VALUE or N:KEY=VALUE
  std::string range;                    // START:END
  std::string output;
  bool inPlace = false;
  std::string toExtension;
  bool force = false;
  bool list = false;
  bool json = false;
};
int RunProcess(const ProcessRequest& request, std::ostream& out, std::ostream& err);

// The sub-command on the command line: registers its options, and runs when it was chosen.
class ProcessCommand {
 public:
  explicit ProcessCommand(CLI::App& app);
  bool Chosen() const;
  CLI::App* Command() const { return command_; }
  int Run(std::ostream& out, std::ostream& err);

 private:
  CLI::App* command_ = nullptr;
  ProcessRequest request_;
};

}  // namespace orlin::cli
