#include "console.h"

#include <mvda/platform/progress.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>

#include <unistd.h>

namespace mvda::cli {
namespace {

bool g_quiet = false;

// On a terminal one line redrawn in place whenever the shown percentage changes, and erased when
// the step ends. Into a pipe or
// a log file a redrawn line would pile up as carriage returns, so there each step gets a line
// of its own every 10 %, and one when it ends.
class ProgressBar : public NCProgress {
 public:
  ProgressBar(const std::string& text, double min, double max, bool terminal)
      : NCProgress(text, min, max), terminal_(terminal) {}
  ~ProgressBar() override {
    const std::lock_guard<std::mutex> guard(lock_);
    // A finished step clears its line: the next step draws in the same place, and the results
    // below are not pushed down by a screen of finished bars.
    if (terminal_ && drawn_) std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }

 protected:
  void Changed() override {
    // Worker threads may report too; one line at a time.
    const std::lock_guard<std::mutex> guard(lock_);
    const int percent = static_cast<int>(std::floor(Fraction() * 100.0 + 1e-9));
    const bool new_text = GetText() != shown_text_;
    if (terminal_ ? (percent == shown_ && !new_text)
                  : (!new_text && percent / 10 == shown_ / 10)) {
      return;
    }
    shown_ = percent;
    shown_text_ = GetText();
    constexpr int kWidth = 30;
    const int filled = percent * kWidth / 100;
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(kWidth - filled), '-');
    std::fprintf(stderr, terminal_ ? "\r%-48.48s [%s] %3d%%" : "%-48.48s [%s] %3d%%\n",
                 shown_text_.c_str(), bar.c_str(), percent);
    std::fflush(stderr);
    drawn_ = true;
  }

 private:
  std::mutex lock_;
  const bool terminal_;
  int shown_ = -1;
  std::string shown_text_;
  bool drawn_ = false;
};

}  // namespace

void SetUpConsole(bool force_progress, bool quiet) {
  g_quiet = quiet;
  const bool terminal = ::isatty(STDERR_FILENO) != 0;
  const bool show = !quiet && (force_progress || terminal);
  NCProgress::SetDefaultFactory(
      [show, terminal](const std::string& text, double min,
                       double max) -> std::shared_ptr<NCProgress> {
        if (show) return std::make_shared<ProgressBar>(text, min, max, terminal);
        return std::make_shared<NCProgress>(text, min, max);
      });
}

void Note(const std::string& text) {
  if (g_quiet || text.empty()) return;
  std::fprintf(stderr, "mvda: %s\n", text.c_str());
  std::fflush(stderr);
}

}  // namespace mvda::cli
