// orlin: the command line over the same library as the desktop program.
#include <iostream>

#include "cli/commands.h"

int main(int argc, char** argv) { return orlin::cli::RunCli(argc, argv, std::cout, std::cerr); }
