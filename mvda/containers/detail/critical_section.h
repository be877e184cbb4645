// The library's one unnamed OpenMP critical section, and FirstException, which keeps the first
// exception thrown inside a parallel loop so that none escapes an OpenMP region.
#ifndef MVDA_CONTAINERS_DETAIL_CRITICAL_SECTION_H_
#define MVDA_CONTAINERS_DETAIL_CRITICAL_SECTION_H_

#include <atomic>
#include <exception>

namespace mvda::detail {

// Runs action(context) inside the unnamed OpenMP critical section. Every parallel writer of the
// library that must write one shared slot, rather than elements of its own, goes through here, so
// that the section is one lock with one list of what it guards. It guards:
//   - the first-exception slot of FirstException (any parallel loop of any subsystem);
//   - the predicted scores T' of NCPCAPred, one column per observation (models/pca_pred.cpp);
//   - any other single shared slot a parallel loop updates; add it to this list when you use it.
// Keep the action tiny and never throw from it. It also works from threads that OpenMP did not
// start (the boost column workers).
void RunInCriticalSection(void (*action)(void*), void* context) noexcept;

// Collects the first exception thrown by the iterations of a parallel loop:
//
//   FirstException first;
//   #pragma omp parallel for
//   for (int k = 0; k < n; ++k) first.Run([&] { Work(k); });
//   first.Rethrow();  // on the calling thread, once every iteration has stopped
//
// After a failure the remaining iterations return at once, so a loop stops soon after an error.
class FirstException {
 public:
  template <class F>
  void Run(F&& f) noexcept {
    if (failed_.load(std::memory_order_relaxed)) return;
    try {
      f();
    } catch (...) {
      Keep(std::current_exception());
    }
  }
  bool Failed() const noexcept { return failed_.load(std::memory_order_acquire); }
  void Rethrow() const {
    if (Failed()) std::rethrow_exception(first_);
  }

 private:
  void Keep(std::exception_ptr error) noexcept;

  std::atomic<bool> failed_{false};
  std::exception_ptr first_;
};

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_CRITICAL_SECTION_H_
