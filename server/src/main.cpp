#include "cli/commands.h"

int main(int argc, char** argv) {
    return halvane::server::runCommandLine(argc, argv);
}
