// orlin: the command line over the same library as the desktop program. The user's settings (load
// normalisers, features) apply to what it reads; it writes them only through `orlin settings set`.
#include <iostream>

#include "cli/commands.h"
#include "core/settings.h"

int main(int argc, char** argv) {
  orlin::LoadSettings();
  return orlin::cli::RunCli(argc, argv, std::cout, std::cerr);
}
