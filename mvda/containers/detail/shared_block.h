// The block that copies of one container share: a reference count and the spin flag that guards
// sharing and unsharing when copies are read from several threads.
#ifndef MVDA_CONTAINERS_DETAIL_SHARED_BLOCK_H_
#define MVDA_CONTAINERS_DETAIL_SHARED_BLOCK_H_

#include <atomic>
#include <thread>

namespace mvda::detail {

// A busy-wait lock taken by compare-exchange 0 -> 1. Held only for the few instructions that copy
// a handful of fields or a buffer, so spinning is cheaper than a mutex; after a while of no luck
// it yields so that a preempted holder can finish.
class SpinFlag {
 public:
  void lock() noexcept {
    for (int tries = 0;; ++tries) {
      int expected = 0;
      if (flag_.compare_exchange_weak(expected, 1, std::memory_order_acquire)) return;
      if (tries > 64) std::this_thread::yield();
    }
  }
  void unlock() noexcept { flag_.store(0, std::memory_order_release); }

 private:
  std::atomic<int> flag_{0};
};

struct SharedBlock {
  std::atomic<int> references{1};
  SpinFlag spin;
};

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_SHARED_BLOCK_H_
