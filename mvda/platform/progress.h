// NCProgress: how a long computation reports progress to the host and learns of a stop request.
#ifndef MVDA_PLATFORM_PROGRESS_H_
#define MVDA_PLATFORM_PROGRESS_H_

#include <mvda/mvda_export.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// The host subclasses NCProgress to drive its own progress dialog; every member is virtual. The
// base class keeps the range and the stack of sub-ranges and answers stop requests, and draws
// nothing.
//
// A computation sees a stop request in two ways: SetValue returning false, or IsBreakPressed
// returning true. RequestBreak (on one object) and RequestBreakAll (for every object, safe to
// call from a signal handler) are how a host or a Ctrl-C handler asks for it.
//
// Ranges: SetRange(min, max) sets the span of the values that follow. PushSubRange(from, to)
// says that the whole of the next range, whatever its numbers, fills only [from, to] of the
// current one; PopSubRange returns to the enclosing range. Fraction() is the overall share done.
class MVDA_EXPORT NCProgress {
 public:
  NCProgress();
  // The form a computation uses for its own reporter: a text, a range, three presentation flags
  // (cancellable, modal, delayed; a host may ignore them) and a second text line (may be null).
  NCProgress(const std::string& text, double min, double max, bool cancellable = false,
             bool modal = false, bool delayed = true, const char* second_text = nullptr);
  NCProgress(const NCProgress&) = delete;
  NCProgress& operator=(const NCProgress&) = delete;
  virtual ~NCProgress();

  virtual void SetRange(double min, double max);
  virtual void PushSubRange(double from, double to);
  virtual void PopSubRange();
  // Records the value; false means that the user asked to stop.
  virtual bool SetValue(double value);
  virtual void SetText(const std::string& text);
  virtual bool IsBreakPressed();
  // For work of unknown length: one more turn of a spinner, and its end.
  virtual void NextSpin();
  virtual void SpinDone();

  void RequestBreak() noexcept { break_.store(true); }
  static void RequestBreakAll() noexcept;
  static void ClearBreakAll() noexcept;

  const std::string& GetText() const { return text_; }
  double GetValue() const { return value_; }
  // The overall share done, 0..1, through every sub-range.
  double Fraction() const;

  // The reporter a computation makes for itself when the host passes none and did not ask for
  // quiet. By default: a text bar on stderr when stderr is a terminal, a silent object otherwise.
  using Factory =
      std::function<std::shared_ptr<NCProgress>(const std::string& text, double min, double max)>;
  static std::shared_ptr<NCProgress> CreateDefault(const std::string& text, double min, double max);
  // Installs the host's factory; an empty function restores the built-in one.
  static void SetDefaultFactory(Factory factory);

 protected:
  // Called after every change of value, range or text; the base does nothing.
  virtual void Changed() {}

 private:
  struct Span {
    double lo, hi;    // the share of the whole that this level covers
    double min, max;  // the numbers of this level's range
  };
  std::vector<Span> levels_;
  std::string text_;
  double value_ = 0.0;
  std::atomic<bool> break_{false};
};

#endif  // MVDA_PLATFORM_PROGRESS_H_
