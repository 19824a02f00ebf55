// ovinmirel-sim: the switch simulator (see SimCommand.h and docs/simulator.md).

#include <unistd.h>

#include <iostream>

#include "tools/sim/SimCommand.h"

int main(int argc, char** argv) {
    return Sim::runCommand(argc, argv, {std::cout, std::cerr, ::isatty(STDERR_FILENO) == 1});
}
