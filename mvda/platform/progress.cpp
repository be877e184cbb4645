#include <mvda/platform/progress.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <utility>

#ifdef _WIN32
#include <io.h>
#define MVDA_ISATTY _isatty
#define MVDA_FILENO _fileno
#else
#include <unistd.h>
#define MVDA_ISATTY isatty
#define MVDA_FILENO fileno
#endif

namespace {

// Lock-free so that a signal handler may set it.
std::atomic<bool> g_break_all{false};
static_assert(std::atomic<bool>::is_always_lock_free);

// A one-line bar redrawn in place, only when the shown percentage changes, so that a fast loop
// does not flood the terminal.
class TextProgressBar : public NCProgress {
 public:
  TextProgressBar(const std::string& text, double min, double max) : NCProgress(text, min, max) {}
  ~TextProgressBar() override {
    if (drawn_) std::fputc('\n', stderr);
  }

 protected:
  void Changed() override {
    const int percent = static_cast<int>(std::floor(Fraction() * 100.0 + 1e-9));
    if (percent == shown_ && GetText() == shown_text_) return;
    shown_ = percent;
    shown_text_ = GetText();
    constexpr int kWidth = 30;
    const int filled = percent * kWidth / 100;
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(kWidth - filled), '-');
    std::fprintf(stderr, "\r%-50.50s [%s] %3d%%", shown_text_.c_str(), bar.c_str(), percent);
    std::fflush(stderr);
    drawn_ = true;
  }

 private:
  int shown_ = -1;
  std::string shown_text_;
  bool drawn_ = false;
};

std::shared_ptr<NCProgress> BuiltInFactory(const std::string& text, double min, double max) {
  if (MVDA_ISATTY(MVDA_FILENO(stderr))) return std::make_shared<TextProgressBar>(text, min, max);
  return std::make_shared<NCProgress>(text, min, max);
}

std::mutex& FactoryLock() {
  static std::mutex lock;
  return lock;
}

NCProgress::Factory& InstalledFactory() {
  static NCProgress::Factory factory;
  return factory;
}

}  // namespace

NCProgress::NCProgress() : levels_{{0.0, 1.0, 0.0, 1.0}} {}

NCProgress::NCProgress(const std::string& text, double min, double max, bool, bool, bool,
                       const char*)
    : levels_{{0.0, 1.0, min, max}}, text_(text), value_(min) {}

NCProgress::~NCProgress() = default;

void NCProgress::SetRange(double min, double max) {
  levels_.back().min = min;
  levels_.back().max = max;
  value_ = min;
  Changed();
}

void NCProgress::PushSubRange(double from, double to) {
  const Span& outer = levels_.back();
  const double width = outer.max - outer.min;
  auto share = [&](double v) {
    const double f = width != 0.0 ? (v - outer.min) / width : 0.0;
    return outer.lo + std::clamp(f, 0.0, 1.0) * (outer.hi - outer.lo);
  };
  levels_.push_back({share(from), share(to), 0.0, 1.0});
  value_ = 0.0;
}

void NCProgress::PopSubRange() {
  // The outermost level stays: an unbalanced pop must not leave the object without a range.
  if (levels_.size() > 1) {
    const double end = levels_.back().hi;
    levels_.pop_back();
    // The enclosing range resumes where the finished sub-range ended.
    const Span& outer = levels_.back();
    const double share = outer.hi > outer.lo ? (end - outer.lo) / (outer.hi - outer.lo) : 0.0;
    value_ = outer.min + share * (outer.max - outer.min);
  }
  Changed();
}

bool NCProgress::SetValue(double value) {
  value_ = value;
  Changed();
  return !IsBreakPressed();
}

void NCProgress::SetText(const std::string& text) {
  text_ = text;
  Changed();
}

bool NCProgress::IsBreakPressed() { return break_.load() || g_break_all.load(); }

void NCProgress::NextSpin() { Changed(); }

void NCProgress::SpinDone() { Changed(); }

void NCProgress::RequestBreakAll() noexcept { g_break_all.store(true); }

void NCProgress::ClearBreakAll() noexcept { g_break_all.store(false); }

double NCProgress::Fraction() const {
  const Span& level = levels_.back();
  const double width = level.max - level.min;
  const double f = width != 0.0 ? std::clamp((value_ - level.min) / width, 0.0, 1.0) : 0.0;
  return level.lo + f * (level.hi - level.lo);
}

std::shared_ptr<NCProgress> NCProgress::CreateDefault(const std::string& text, double min,
                                                      double max) {
  Factory factory;
  {
    std::lock_guard<std::mutex> guard(FactoryLock());
    factory = InstalledFactory();
  }
  return factory ? factory(text, min, max) : BuiltInFactory(text, min, max);
}

void NCProgress::SetDefaultFactory(Factory factory) {
  std::lock_guard<std::mutex> guard(FactoryLock());
  InstalledFactory() = std::move(factory);
}
