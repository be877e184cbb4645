// mvda, the command-line tool: the library's analyses on CSV files (mvda --help).
#include <mvda/platform/progress.h>

#include <csignal>

#include "commands.h"

namespace {

// Ctrl-C asks every running computation to stop through the library's own stop request, which
// is safe to make from a signal handler; the computation then ends with an error that Run turns
// into a clean exit. A second Ctrl-C falls back to the default: the user insists.
extern "C" void OnInterrupt(int) {
  NCProgress::RequestBreakAll();
  std::signal(SIGINT, SIG_DFL);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGINT, OnInterrupt);
  return mvda::cli::Run(argc, argv);
}
