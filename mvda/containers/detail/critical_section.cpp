// The library's one unnamed OpenMP critical section.
#include <mvda/containers/detail/critical_section.h>

#include <utility>

namespace mvda::detail {

void RunInCriticalSection(void (*action)(void*), void* context) noexcept {
#pragma omp critical
  action(context);
}

void FirstException::Keep(std::exception_ptr error) noexcept {
  struct Slot {
    FirstException* self;
    std::exception_ptr* error;
  } slot{this, &error};
  RunInCriticalSection(
      [](void* p) {
        Slot& s = *static_cast<Slot*>(p);
        if (!s.self->failed_.load(std::memory_order_relaxed)) {
          s.self->first_ = std::move(*s.error);
          s.self->failed_.store(true, std::memory_order_release);
        }
      },
      &slot);
}

}  // namespace mvda::detail
