#pragma once

namespace tarvik {

/// Runs the command that `argv[1]` names, with the vector starting there. @return its exit status
int do_main(int argc, char** argv);

/// Prints the usage text on standard error and ends the process with status 1.
[[noreturn]] int helpCommand(int argc, char** argv);

}  // namespace tarvik
