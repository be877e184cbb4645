// RunPieces and the worker pool behind it.
#include <mvda/containers/detail/pieces.h>
#include <mvda/containers/multi_threading.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

namespace mvda::detail {
namespace {

// One call of RunPieces while it runs. Lives on the caller's stack; the caller removes it from the
// pool's list and waits for every helper to leave before returning.
struct Job {
  int count = 0;
  void (*run)(void*, int) = nullptr;
  void* context = nullptr;
  std::atomic<int> next{0};
  std::atomic<bool> failed{false};
  int wanted = 0;  // helpers that may still join (guarded by the pool's mutex)
  int inside = 0;  // helpers working on it now (guarded by the pool's mutex)
  std::condition_variable left;
  std::mutex error_mutex;
  int error_piece = INT_MAX;
  std::exception_ptr error;

  // Takes pieces until none is left or one has failed.
  void Work() noexcept {
    while (!failed.load(std::memory_order_relaxed)) {
      const int k = next.fetch_add(1, std::memory_order_relaxed);
      if (k >= count) return;
      try {
        run(context, k);
      } catch (...) {
        const std::lock_guard<std::mutex> lock(error_mutex);
        if (k < error_piece) {
          error_piece = k;
          error = std::current_exception();
        }
        failed.store(true, std::memory_order_relaxed);
      }
    }
  }
};

// Workers sleep on `wake` until a job wants help; there is no polling. The pool is never destroyed:
// its threads may still be asleep on its mutex while static objects are torn down at exit.
class Pool {
 public:
  static Pool& Get() {
    static Pool* const pool = new Pool;
    return *pool;
  }

  void Run(Job& job, int helpers) {
    bool wake = false;  // job.wanted itself is the workers' to count down once unlocked
    {
      std::lock_guard<std::mutex> lock(mutex_);
      Grow(helpers);
      job.wanted = std::min(helpers, workers_);
      wake = job.wanted > 0;
      if (wake) jobs_.push_back(&job);
    }
    if (wake) wake_.notify_all();
    job.Work();
    std::unique_lock<std::mutex> lock(mutex_);
    const auto it = std::find(jobs_.begin(), jobs_.end(), &job);
    if (it != jobs_.end()) jobs_.erase(it);
    job.left.wait(lock, [&] { return job.inside == 0; });
  }

 private:
  // Starts workers until there are `helpers`; if the system refuses a thread, the pool makes do
  // with those it has (at worst none: the caller then takes every piece).
  void Grow(int helpers) {
    while (workers_ < helpers) {
      try {
        std::thread([this] { Serve(); }).detach();
      } catch (const std::system_error&) {
        return;
      }
      ++workers_;
    }
  }

  void Serve() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return !jobs_.empty(); });
      Job* job = jobs_.front();
      if (--job->wanted == 0) jobs_.pop_front();
      ++job->inside;
      lock.unlock();
      job->Work();
      lock.lock();
      if (--job->inside == 0) job->left.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Job*> jobs_;  // jobs that still take helpers, oldest first
  int workers_ = 0;
};

}  // namespace

int PiecesTeamSize() {
  using NCMultiThreading::ThreadingControl;
  return ThreadingControl::IsThreadingOn() ? ThreadingControl::GetNumberOfProcessors() : 1;
}

void RunPiecesImpl(int count, int most, void (*run)(void* context, int k), void* context) {
  if (count <= 0) return;
  int team = count > 1 ? PiecesTeamSize() : 1;
  if (most > 0) team = std::min(team, most);
  Job job;
  job.count = count;
  job.run = run;
  job.context = context;
  if (team <= 1)
    job.Work();
  else
    Pool::Get().Run(job, std::min(team, count) - 1);
  if (job.error) std::rethrow_exception(job.error);
}

}  // namespace mvda::detail
