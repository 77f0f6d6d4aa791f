// The `kora` program: the command line of Cli.h on the library's own
// kernel table.
#include <unistd.h>

#include <csignal>
#include <iostream>

#include "Cli.h"

namespace {

// The library stops on a broken invariant with a trap instruction, after
// printing why. A trap it announced ends the program with status 3 instead of
// a core dump; any other fault keeps its default action.
void onTrap(int signal) {
  if (kora::cli::trapAnnounced) _exit(3);
  std::signal(signal, SIG_DFL);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGILL, onTrap);
  std::signal(SIGTRAP, onTrap);
  std::ios::sync_with_stdio(false);
  std::vector<std::string> args(argv + 1, argv + argc);
  const int status = kora::cli::main(args, kora::kernelTable(), std::cout, std::cerr);
  std::cout.flush();
  return status;
}
