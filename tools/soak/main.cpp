// ovinmirel-soak: long randomized runs with every invariant checked (see SoakCommand.h).

#include <unistd.h>

#include <iostream>

#include "tools/soak/SoakCommand.h"

int main(int argc, char** argv) {
    return RandomSequence::runSoakCommand(argc, argv,
                                          {std::cout, std::cerr, ::isatty(STDERR_FILENO) == 1});
}
