// What the tool shows on stderr besides its errors: the progress bar of fits, cross-validation
// and clustering, and one-line hints. Results go to stdout; nothing here writes there.
#ifndef MVDA_APPS_MVDA_CONSOLE_H_
#define MVDA_APPS_MVDA_CONSOLE_H_

#include <string>

namespace mvda::cli {

// Installs the library's default progress reporter for this run: a bar on stderr when stderr is
// a terminal or `force` is set (--progress), nothing when `quiet` (--quiet, which wins). The bar
// is an NCProgress, so every computation that reports progress or checks for a stop drives it.
void SetUpConsole(bool force_progress, bool quiet);

// "mvda: <text>" on stderr, unless --quiet.
void Note(const std::string& text);

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_CONSOLE_H_
