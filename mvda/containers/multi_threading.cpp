// NCMultiThreading::ThreadingControl and the column workers.
#include <mvda/containers/data_vector.h>
#include <mvda/containers/detail/blas.h>
#include <mvda/containers/detail/join_guard.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/thread/thread.hpp>
#include <omp.h>

namespace NCMultiThreading {
namespace {

// Plain process-wide values in spirit (set before work starts); atomics only so that a host that
// reads them from several threads has no data race.
std::atomic<int> processors{1};
std::atomic<bool> threading{false};

// The BLAS always runs on one thread: its own threads split sums by their count, which would make
// the products depend on the thread count, and would compete with the library's threads for the
// same processors. The library's parallel loops call it from several threads instead.
void ApplyTeamSize(bool on) {
  const int team = on ? processors.load(std::memory_order_relaxed) : 1;
  omp_set_num_threads(team);
  mvda::detail::SetBlasThreads(1);
}

// Reset once when the library is loaded, so that threading is on by default on a machine with
// more than one processor.
const bool reset_at_load = (ThreadingControl::Reset(), true);

}  // namespace

void ThreadingControl::Reset() {
  omp_set_dynamic(1);
  const int n = omp_get_num_procs();
  processors.store(n < 1 ? 1 : n > kMaxProcessors ? kMaxProcessors : n, std::memory_order_relaxed);
  threading.store(n > 1, std::memory_order_relaxed);
  ApplyTeamSize(n > 1);
}

int ThreadingControl::GetNumberOfProcessors() { return processors.load(std::memory_order_relaxed); }

void ThreadingControl::SetNumberOfProcessors(int n) {
  if (n < 1 || n > kMaxProcessors)
    throw NCError("ThreadingControl::SetNumberOfProcessors: " + std::to_string(n) +
                  " processors (1.." + std::to_string(kMaxProcessors) + " allowed)");
  processors.store(n, std::memory_order_relaxed);
}

bool ThreadingControl::IsThreadingOn() { return threading.load(std::memory_order_relaxed); }

void ThreadingControl::SetThreadingIsOn(bool on) {
  threading.store(on, std::memory_order_relaxed);
  ApplyTeamSize(on);
}

// ---------------------------------------------------------------------------------------------
// Column workers

template <class T>
MatrixColumnVectorOperationThread<T>::MatrixColumnVectorOperationThread(Operation operation,
                                                                        int first, int last,
                                                                        T* result)
    : operation_(std::move(operation)), first_(first), last_(last), result_(result) {}

template <class T>
void MatrixColumnVectorOperationThread<T>::operator()() noexcept {
  try {
    operation_(first_, last_, result_);
  } catch (...) {
    error_ = std::current_exception();
  }
}

template <class T>
void MatrixColumnVectorOperationThread<T>::Rethrow() const {
  if (error_) std::rethrow_exception(error_);
}

template <class T>
void MatrixColumnVectorOperationThread<T>::Run(int columns, const Operation& operation,
                                               NCDataVector<T>& result) {
  if (columns < 0)
    throw NCError("MatrixColumnVectorOperationThread::Run: negative column count " +
                  std::to_string(columns));
  if (result.Size() < columns)
    throw NCError("MatrixColumnVectorOperationThread::Run: result of length " +
                  std::to_string(result.Size()) + " for " + std::to_string(columns) + " columns");
  if (columns == 0) return;
  result.ForceUnlink();
  T* buffer = result.GetVector();
  if (!ThreadingControl::IsThreadingOn()) {
    operation(1, columns, buffer);
    return;
  }
  const int p = ThreadingControl::GetNumberOfProcessors();
  const int chunk = (columns + p - 1) / p;
  std::vector<MatrixColumnVectorOperationThread> workers;
  workers.reserve(static_cast<std::size_t>((columns + chunk - 1) / chunk));
  for (int first = 1; first <= columns; first += chunk)
    workers.emplace_back(operation, first, std::min(columns, first + chunk - 1), buffer);
  {
    boost::thread_group group;
    mvda::detail::JoinGuard join(group);
    for (MatrixColumnVectorOperationThread& worker : workers) {
      try {
        group.create_thread([&worker] { worker(); });
      } catch (const boost::thread_resource_error&) {
        worker();  // no thread to be had: this range runs here, the others go on meanwhile
      }
    }
  }
  for (const MatrixColumnVectorOperationThread& worker : workers) worker.Rethrow();
}

template class MatrixColumnVectorOperationThread<float>;
template class MatrixColumnVectorOperationThread<double>;

}  // namespace NCMultiThreading
