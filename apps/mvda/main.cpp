// mvda, the command-line tool: the library's analyses on CSV files (mvda --help).
#include <mvda/platform/progress.h>

#include <malloc.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "commands.h"

namespace {

// Ctrl-C asks every running computation to stop through the library's own stop request, which
// is safe to make from a signal handler; the computation then ends with an error that Run turns
// into a clean exit. A second Ctrl-C falls back to the default: the user insists.
extern "C" void OnInterrupt(int) {
  NCProgress::RequestBreakAll();
  std::signal(SIGINT, SIG_DFL);
}

// The library runs OpenBLAS on one thread (its own pieces split the work), but OpenBLAS starts
// a worker per processor when it loads, and each grabs a large buffer: wasted, and under an
// address-space limit a worker that cannot get it spins until exit. The variable is read by
// OpenBLAS's initialiser, so it is set from the pre-initialisers, which run before any library's.
void OneBlasThread(int, char**, char**) { setenv("OPENBLAS_NUM_THREADS", "1", 0); }
__attribute__((section(".preinit_array"), used)) void (*const kOneBlasThread)(int, char**, char**) =
    OneBlasThread;

}  // namespace

int main(int argc, char** argv) {
  // Under an address-space limit (ulimit -v) every thread's own malloc arena would reserve 64 MB
  // of it, for nothing but speed: one arena leaves that room to the distances of a clustering.
  rlimit address_space{};
  if (getrlimit(RLIMIT_AS, &address_space) == 0 && address_space.rlim_cur != RLIM_INFINITY)
    mallopt(M_ARENA_MAX, 1);
  std::signal(SIGINT, OnInterrupt);
  const int status = mvda::cli::Run(argc, argv);
#if defined(__SANITIZE_ADDRESS__)
  return status;  // the leak check runs at exit
#else
  // Ends without the libraries' exit handlers: OpenBLAS's joins its worker threads, and under a
  // tight address-space limit (ulimit -v) a worker that never got its buffer never ends, so the
  // finished tool would hang. Every file is written and closed by now; only the streams are left.
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  std::_Exit(status);
#endif
}
