// NCMultiThreading::ThreadingControl, the process-wide threading switch and processor count, and
// NCMultiThreading::MatrixColumnVectorOperationThread<T>, the column worker that computes a range
// of a result vector's elements, one per matrix column, on a thread of its own.
#ifndef MVDA_CONTAINERS_MULTI_THREADING_H_
#define MVDA_CONTAINERS_MULTI_THREADING_H_

#include <mvda/mvda_export.h>

#include <exception>
#include <functional>

template <class T>
class NCDataVector;

namespace NCMultiThreading {

// Two process-wide values: the number of processors the library may use and whether it uses more
// than one. The host sets them before work starts, not while a computation runs. Reset() runs
// once when the library is loaded, so threading is on by default on a machine with more than one
// processor. The BLAS library is kept at one thread whatever the values: the library splits the
// products between its own threads in pieces fixed by the data sizes, so that results do not
// depend on the number of threads.
class MVDA_EXPORT ThreadingControl {
 public:
  ThreadingControl() = delete;

  // Lets the OpenMP runtime shrink teams on a busy machine (omp_set_dynamic(1)), takes the number
  // of processors from the OpenMP runtime, switches threading on exactly when there is more than
  // one, and sets the team size to that number.
  static void Reset();
  static int GetNumberOfProcessors();
  // Only stores n; it takes effect at the next SetThreadingIsOn. n must lie in
  // 1..kMaxProcessors (NCError otherwise, nothing stored).
  static void SetNumberOfProcessors(int n);
  static bool IsThreadingOn();
  // Stores on and sets the OpenMP team size to the number of processors (on) or to 1 (off).
  static void SetThreadingIsOn(bool on);

  // More than any machine the library runs on has; a larger count is a mistake, and would make the
  // column workers start one thread per column.
  static constexpr int kMaxProcessors = 4096;
};

// A column worker: holds an operation that computes the elements first..last of a result vector,
// element j from column j of a matrix of T, and runs it when called. The result vector was made
// private before the workers start, and each worker writes only its own elements, so the workers
// need no lock. An exception thrown by the operation is kept in the worker instead of ending the
// thread; Rethrow() hands it on.
template <class T>
class MVDA_EXPORT MatrixColumnVectorOperationThread {
 public:
  // Computes result[first..last]; `result` is the 1-based buffer of the result vector.
  using Operation = std::function<void(int first, int last, T* result)>;

  MatrixColumnVectorOperationThread(Operation operation, int first, int last, T* result);

  void operator()() noexcept;
  void Rethrow() const;
  int First() const { return first_; }
  int Last() const { return last_; }

  // Computes result[1..columns] with `operation`. With threading off the whole range runs in order
  // on the calling thread. With it on, with p processors the columns are cut into ranges of
  // ceil(columns / p) columns (the last one takes the remainder), each range runs on a boost
  // thread of its own, and the call returns when every thread has been joined, on every path. The
  // first exception in column order is then rethrown. If the system refuses a thread, that range
  // runs on the calling thread instead.
  static void Run(int columns, const Operation& operation, NCDataVector<T>& result);

 private:
  Operation operation_;
  int first_;
  int last_;
  T* result_;
  std::exception_ptr error_;
};

extern template class MatrixColumnVectorOperationThread<float>;
extern template class MatrixColumnVectorOperationThread<double>;

}  // namespace NCMultiThreading

#endif  // MVDA_CONTAINERS_MULTI_THREADING_H_
