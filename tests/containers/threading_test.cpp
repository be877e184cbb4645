#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/platform/error.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <omp.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // ToStd(v): the elements of a vector

namespace {

using NCMultiThreading::MatrixColumnVectorOperationThread;
using NCMultiThreading::ThreadingControl;

// Restores the process-wide threading values after each test.
class Threading : public ::testing::Test {
 protected:
  void SetUp() override {
    processors_ = ThreadingControl::GetNumberOfProcessors();
    on_ = ThreadingControl::IsThreadingOn();
  }
  void TearDown() override {
    ThreadingControl::SetNumberOfProcessors(processors_);
    ThreadingControl::SetThreadingIsOn(on_);
  }
  static void Use(int processors, bool on) {
    ThreadingControl::SetNumberOfProcessors(processors);
    ThreadingControl::SetThreadingIsOn(on);
  }

 private:
  int processors_ = 1;
  bool on_ = false;
};

TEST_F(Threading, ControlStoresItsTwoValues) {
  ThreadingControl::Reset();
  EXPECT_GE(ThreadingControl::GetNumberOfProcessors(), 1);
  EXPECT_EQ(ThreadingControl::IsThreadingOn(), ThreadingControl::GetNumberOfProcessors() > 1);
  Use(3, true);
  EXPECT_EQ(ThreadingControl::GetNumberOfProcessors(), 3);
  EXPECT_TRUE(ThreadingControl::IsThreadingOn());
  for (const int bad : {0, -2, ThreadingControl::kMaxProcessors + 1}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(ThreadingControl::SetNumberOfProcessors(bad), NCError);
    EXPECT_EQ(ThreadingControl::GetNumberOfProcessors(), 3);
  }
  ThreadingControl::SetThreadingIsOn(false);
  EXPECT_FALSE(ThreadingControl::IsThreadingOn());
}

// Which range and which thread computed each column: every worker writes its own elements only.
struct Record {
  std::vector<int> first, last;
  std::vector<std::thread::id> thread;
  explicit Record(int columns) : first(columns + 1), last(columns + 1), thread(columns + 1) {}
  MatrixColumnVectorOperationThread<float>::Operation Operation() {
    return [this](int from, int to, float* result) {
      for (int j = from; j <= to; ++j) {
        first[j] = from;
        last[j] = to;
        thread[j] = std::this_thread::get_id();
        result[j] = static_cast<float>(j);
      }
    };
  }
};

// 10 columns on 3 processors: ranges of ceil(10/3) = 4 columns, 1-4, 5-8 and the remainder 9-10,
// each on a thread of its own; on 4 processors ranges of 3: 1-3, 4-6, 7-9, 10.
TEST_F(Threading, ColumnWorkersCutTheColumnsIntoRanges) {
  struct Case {
    int processors;
    bool on;
    std::vector<std::pair<int, int>> ranges;  // per column 1..10
  };
  const Case cases[] = {
      {3, true, {{1, 4}, {1, 4}, {1, 4}, {1, 4}, {5, 8}, {5, 8}, {5, 8}, {5, 8}, {9, 10}, {9, 10}}},
      {4, true, {{1, 3}, {1, 3}, {1, 3}, {4, 6}, {4, 6}, {4, 6}, {7, 9}, {7, 9}, {7, 9}, {10, 10}}},
      {3, false, std::vector<std::pair<int, int>>(10, {1, 10})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.processors * 10 + c.on);
    Use(c.processors, c.on);
    Record record(10);
    NCDataVector<float> result(10, 0.0f);
    const NCDataVector<float> shared = result;  // the workers must not write into this copy
    MatrixColumnVectorOperationThread<float>::Run(10, record.Operation(), result);
    for (int j = 1; j <= 10; ++j) {
      EXPECT_EQ(record.first[j], c.ranges[j - 1].first) << j;
      EXPECT_EQ(record.last[j], c.ranges[j - 1].second) << j;
      EXPECT_EQ(result[j], j);
      EXPECT_EQ(shared[j], 0);
      EXPECT_EQ(record.thread[j] == std::this_thread::get_id(), !c.on) << j;
      if (j > 1 && c.on) {
        EXPECT_EQ(record.thread[j] == record.thread[j - 1], c.ranges[j - 1] == c.ranges[j - 2]);
      }
    }
  }
}

// A failing range: the call still waits for the slow range, then rethrows the failure.
TEST_F(Threading, ColumnWorkersJoinBeforeRethrowing) {
  Use(2, true);
  std::atomic<bool> slowDone{false};
  NCDataVector<float> result(4, 0.0f);
  const auto operation = [&](int from, int, float*) {
    if (from == 1) throw NCError("range 1 failed");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    slowDone = true;
  };
  try {
    MatrixColumnVectorOperationThread<float>::Run(4, operation, result);
    FAIL() << "no exception";
  } catch (const NCError& e) {
    EXPECT_EQ(e.GetMessage(), "range 1 failed");
  }
  EXPECT_TRUE(slowDone);
  EXPECT_THROW(MatrixColumnVectorOperationThread<float>::Run(5, operation, result), NCError);
}

// The same elements with the rows scattered over the heap, so that no two rows lie at a fixed
// distance: BLAS must then read packed copies instead of the rows in place.
template <class T>
NCDataMatrix<T> ScatteredCopy(const NCDataMatrix<T>& m) {
  NCDataMatrix<T> copy;
  std::vector<std::unique_ptr<char[]>> spacers;
  for (int i = 1; i <= m.SizeRows(); ++i) {
    spacers.emplace_back(new char[static_cast<std::size_t>(16 * (i % 7 + 1))]);
    NCDataVector<T> row;
    row.CopyContent(m[i]);
    copy.push_back(row);
  }
  return copy;
}

// All the projections of one matrix, in one list to compare.
template <class T>
std::vector<std::vector<double>> Projections(const NCDataMatrix<T>& m, const NCDataVector<T>& t,
                                             const NCDataVector<T>& p) {
  NCIntegralVector<int, -99> rowGroups(m.SizeRows(), 0), columnGroups(m.SizeColumns(), 0);
  for (int i = 1; i <= m.SizeRows(); ++i) rowGroups(i) = i % 5;
  for (int j = 1; j <= m.SizeColumns(); ++j) columnGroups(j) = j % 5;
  return {ToStd(m.RegressColumns(t)),
          ToStd(m.RegressRows(p)),
          ToStd(m.SpecialNipalsRegressColumnsFix(t)),
          ToStd(m.SpecialNipalsRegressColumnsFix(t, &rowGroups, 3)),
          ToStd(m.SpecialNipalsRegressRowsFix(p, &columnGroups, 2)),
          ToStd(m.PreMultiply(t)),
          ToStd(m * p),
          ToStd(m.GetNIPALSStartColumn()),
          {static_cast<double>(m.GetSSAroundColumnMeans())}};
}

// ThreadingControl::Reset lets the OpenMP runtime shrink teams on a busy machine, down to one
// thread; these tests want real teams, so they switch that off.
void SetOpenMPDynamic(bool on) { omp_set_dynamic(on ? 1 : 0); }

template <class T>
class ThreadCount : public Threading {
 protected:
  void SetUp() override {
    Threading::SetUp();
    SetOpenMPDynamic(false);
  }
  void TearDown() override {
    SetOpenMPDynamic(true);
    Threading::TearDown();
  }
};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(ThreadCount, Precisions);

// Exact equality: every sum runs in an order fixed by the shape, whatever the team; several bands
// of rows (3000 > 512) and several column workers are in play.
TYPED_TEST(ThreadCount, ProjectionsDoNotDependOnIt) {
  using T = TypeParam;
  for (const double share : {0.0, 0.1}) {
    SCOPED_TRACE(share);
    const NCDataMatrix<T> m = RandomMatrix<T>(3000, 301, share, 11);
    const NCDataVector<T> t = RandomMatrix<T>(1, 3000, share, 12)[1];
    const NCDataVector<T> p = RandomMatrix<T>(1, 301, share, 13)[1];
    this->Use(1, false);
    const auto reference = Projections(m, t, p);
    for (const int processors : {2, 3, 4}) {
      SCOPED_TRACE(processors);
      this->Use(processors, true);
      EXPECT_EQ(Projections(m, t, p), reference);
    }
    this->Use(2, true);
    EXPECT_EQ(Projections(ScatteredCopy(m), t, p), reference);
    EXPECT_EQ(ToStd(m.PreMultiply(t)), ToStd(t * m));
  }
}

}  // namespace
