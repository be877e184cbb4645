// One answer, whatever the thread count and wherever the rows lie: products, regression
// coefficients and scores compared bit for bit between threading off and on with 1, 2, 3 and 7
// processors, and between rows allocated one after another and rows scattered over the heap; the
// library's piece runner checked on its own.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/detail/pieces.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pca.h>
#include <mvda/models/pca_pred.h>
#include <mvda/platform/error.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <omp.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // ToStd(v): the elements of a vector

namespace {

using NCMultiThreading::ThreadingControl;

// Every element, row after row: compared with ==, so any changed bit fails.
template <class T>
std::vector<double> Elements(const NCDataMatrix<T>& m) {
  std::vector<double> all;
  for (int i = 1; i <= m.SizeRows(); ++i)
    for (int j = 1; j <= m.SizeColumns(); ++j) all.push_back(m[i][j]);
  return all;
}

// The same elements with every row allocated between blocks of other sizes, so that the rows lie
// at uneven distances. A matrix built in one go usually has its rows at one fixed distance.
template <class T>
NCDataMatrix<T> ScatteredCopy(const NCDataMatrix<T>& m) {
  NCDataMatrix<T> copy;
  std::vector<std::unique_ptr<char[]>> spacers;
  for (int i = 1; i <= m.SizeRows(); ++i) {
    spacers.emplace_back(new char[static_cast<std::size_t>(24 * (i % 5 + 1))]);
    NCDataVector<T> row;
    row.CopyContent(m[i]);
    copy.push_back(row);
  }
  return copy;
}

// Restores the threading values after each test, and lets OpenMP shrink its teams meanwhile,
// as on a busy machine: that must not change an answer either.
class Determinism : public ::testing::Test {
 protected:
  void SetUp() override {
    processors_ = ThreadingControl::GetNumberOfProcessors();
    on_ = ThreadingControl::IsThreadingOn();
    dynamic_ = omp_get_dynamic();
    omp_set_dynamic(1);
  }
  void TearDown() override {
    ThreadingControl::SetNumberOfProcessors(processors_);
    ThreadingControl::SetThreadingIsOn(on_);
    omp_set_dynamic(dynamic_);
  }
  // Calls compute() with threading off, then on with 1, 2, 3 and 7 processors, and expects the
  // very same result each time.
  template <class F>
  static void ExpectSameForEveryThreadCount(F compute) {
    ThreadingControl::SetThreadingIsOn(false);
    const auto reference = compute();
    for (const int processors : {1, 2, 3, 7}) {
      SCOPED_TRACE("processors " + std::to_string(processors));
      ThreadingControl::SetNumberOfProcessors(processors);
      ThreadingControl::SetThreadingIsOn(true);
      EXPECT_TRUE(compute() == reference);
    }
  }

 private:
  int processors_ = 1;
  bool on_ = false;
  int dynamic_ = 0;
};

// (A'B)[p][q] summed in long double, the independent check that the pieces add up to the product.
template <class T>
long double CrossElement(const NCDataMatrix<T>& a, const NCDataMatrix<T>& b, int p, int q) {
  long double sum = 0;
  for (int i = 1; i <= a.SizeRows(); ++i) sum += static_cast<long double>(a[i][p]) * b[i][q];
  return sum;
}

// 5000 rows: the products are cut into two row blocks (at least 2048 rows each) and several bands
// of output rows, so pieces and their fixed-order sums are really in play.
TEST_F(Determinism, ProductsAndCoefficientsDoNotDependOnTheThreadCount) {
  const NCDataMatrix<float> a = RandomMatrix<float>(5000, 70, 0, 21);
  const NCDataMatrix<float> b = RandomMatrix<float>(5000, 60, 0, 22);
  const NCDataMatrix<float> gappy = RandomMatrix<float>(5000, 70, 0.1, 23);
  const NCDataMatrix<float> wide = RandomMatrix<float>(300, 600, 0, 24);
  const NCDataMatrix<float> y = RandomMatrix<float>(5000, 3, 0, 25);
  const auto products = [&] {
    return std::vector<std::vector<double>>{
        Elements(a.MatrixMultiply(a, true, false)),       // A'A
        Elements(a.MatrixMultiply(b, true, false)),       // A'B
        Elements(wide.MatrixMultiply(wide, false, true)),  // A·B' on 300 x 300 outputs
        Elements(wide * wide.MatrixMultiply(wide, true, false)),
        Elements(gappy.MatrixMultiply(gappy, true, false, true)),
        Elements(a.GetRegressionCoefficients(y))};
  };
  ExpectSameForEveryThreadCount(products);

  ThreadingControl::SetNumberOfProcessors(3);
  ThreadingControl::SetThreadingIsOn(true);
  const NCDataMatrix<float> ata = a.MatrixMultiply(a, true, false);
  const NCDataMatrix<float> atb = a.MatrixMultiply(b, true, false);
  for (const auto& [p, q] : {std::pair{1, 1}, {7, 3}, {70, 60}, {33, 41}}) {
    const long double expected = CrossElement(a, b, p, q);
    EXPECT_NEAR(atb[p][q], expected, 1e-4 * (1 + std::fabs(expected))) << p << "," << q;
    EXPECT_NEAR(ata[p][q], CrossElement(a, a, p, q), 1e-4 * (1 + std::fabs(expected)));
    EXPECT_EQ(ata[p][q], ata[q][p]);  // formed once and mirrored
  }
  // Gaps in A'A with rescaling: the sum over the present pairs scaled to all 5000 rows.
  const NCDataMatrix<float> gtg = gappy.MatrixMultiply(gappy, true, false, true);
  long double sum = 0;
  int pairs = 0;
  for (int i = 1; i <= 5000; ++i)
    if (gappy[i][4] != -99 && gappy[i][9] != -99) {
      sum += static_cast<long double>(gappy[i][4]) * gappy[i][9];
      ++pairs;
    }
  EXPECT_NEAR(gtg[4][9], sum * 5000 / pairs, 1e-3 * (1 + std::fabs(sum)));
}

// Three strong directions under noise, so that NIPALS converges in a few dozen iterations; about
// `share` of the elements missing.
NCDataMatrix<float> Structured(int rows, int cols, double share, unsigned seed) {
  NCDataMatrix<float> m = RandomMatrix<float>(rows, cols, share, seed);
  for (int i = 1; i <= rows; ++i)
    for (int j = 1; j <= cols; ++j)
      if (m[i][j] != -99)
        m(i, j, m[i][j] * 0.1f + 5.0f * std::sin(i * 0.37f) * (j % 4) +
                    3.0f * std::cos(i * 0.11f) * (j % 3) + 1.5f * std::sin(i * 1.3f) * (j % 5));
  return m;
}

// NIPALS scores of a 700 x 30 matrix (two bands of rows), three components: the loop runs every
// projection many times, so any sum that depended on the team would show in the scores.
TEST_F(Determinism, ScoresDoNotDependOnTheThreadCount) {
  const NCDataMatrix<float> x = Structured(700, 30, 0, 31);
  const NCDataMatrix<float> holed = Structured(700, 30, 0.05, 32);
  const NCDataMatrix<float> fresh = Structured(300, 30, 0.05, 33);
  const auto scores = [&] {
    std::vector<std::vector<double>> all;
    for (const NCDataMatrix<float>* data : {&x, &holed}) {
      NCPCA model(data, 200);
      for (int a = 0; a < 3; ++a) {
        model.NextComponent(nullptr, nullptr, 0, nullptr);
        model.CalculateResiduals();
      }
      all.push_back(Elements(*model.GetTprim()));
      all.push_back(Elements(*model.GetPprim()));
      const NCPCAPred pred(&fresh, model.GetPprim(), 200, 0.5f);
      all.push_back(Elements(*pred.GetTPredPrim()));
    }
    return all;
  };
  ExpectSameForEveryThreadCount(scores);
}

// Narrow matrices are where OpenBLAS's matrix-vector kernels sum differently for a leading
// dimension above the width; the answers must not depend on where the rows lie.
TEST_F(Determinism, AnswersDoNotDependOnWhereTheRowsLie) {
  for (const int width : {1, 2, 3, 13}) {
    SCOPED_TRACE("width " + std::to_string(width));
    const NCDataMatrix<float> even = RandomMatrix<float>(2000, width, 0, 40 + width);
    const NCDataMatrix<float> scattered = ScatteredCopy(even);
    const NCDataVector<float> t = RandomMatrix<float>(1, 2000, 0, 50)[1];
    const NCDataVector<float> p = RandomMatrix<float>(1, width, 0, 51)[1];
    const auto all = [&](const NCDataMatrix<float>& m) {
      return std::vector<std::vector<double>>{
          ToStd(m.PreMultiply(t)), ToStd(m.RegressColumns(t)), ToStd(m.RegressRows(p)),
          ToStd(m * p), Elements(m.MatrixMultiply(m, true, false))};
    };
    const auto reference = all(even);
    EXPECT_TRUE(all(scattered) == reference);
    // And they are right: t'X column 1 in long double.
    long double sum = 0;
    for (int i = 1; i <= 2000; ++i) sum += static_cast<long double>(t[i]) * even[i][1];
    EXPECT_NEAR(reference[0][0], sum, 1e-4 * (1 + std::fabs(sum)));
  }
}

TEST_F(Determinism, PiecesRunOnceEachAndHandOnTheFirstFailure) {
  ThreadingControl::SetNumberOfProcessors(7);
  ThreadingControl::SetThreadingIsOn(true);
  std::vector<std::atomic<int>> runs(100);
  mvda::detail::RunPieces(100, [&](int k) {
    runs[k]++;
    // A piece that runs pieces of its own: the inner loop must finish too.
    mvda::detail::RunPieces(3, [&](int) { runs[k] += 10; });
  });
  for (int k = 0; k < 100; ++k) EXPECT_EQ(runs[k], 31) << k;

  // Pieces 40 and 60 fail; whichever thread gets there first, piece 40's error comes back (60
  // may not even start once 40 has failed), and only after every started piece has ended.
  std::atomic<int> running{0};
  std::atomic<bool> failed{false};
  try {
    mvda::detail::RunPieces(100, [&](int k) {
      ++running;
      if (k == 40 || k == 60) {
        failed = true;
        --running;
        throw NCError("piece " + std::to_string(k));
      }
      --running;
    });
    FAIL() << "no exception";
  } catch (const NCError& e) {
    EXPECT_EQ(e.GetMessage(), "piece 40");
  }
  EXPECT_EQ(running, 0);
  // With threading off the pieces run in order on this thread.
  ThreadingControl::SetThreadingIsOn(false);
  std::vector<int> order;
  mvda::detail::RunPieces(5, [&](int k) { order.push_back(k); });
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

// A loop too small to pay for waking a worker runs on the calling thread alone, in order, however
// many processors are allowed; a loop with the work for two threads still runs every piece once.
TEST_F(Determinism, SmallLoopsStayOnTheCallingThread) {
  ThreadingControl::SetNumberOfProcessors(7);
  ThreadingControl::SetThreadingIsOn(true);
  const std::thread::id caller = std::this_thread::get_id();
  // Each piece sleeps a little, so that an idle worker allowed to join surely would.
  std::vector<std::thread::id> ran(16);
  std::vector<int> order;
  mvda::detail::RunPieces(16, 2 * mvda::detail::kMinWorkPerThread - 1, [&](int k) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ran[k] = std::this_thread::get_id();
    order.push_back(k);
  });
  for (int k = 0; k < 16; ++k) EXPECT_EQ(ran[k], caller) << k;
  ASSERT_EQ(order.size(), 16u);
  for (int k = 0; k < 16; ++k) EXPECT_EQ(order[k], k);

  std::vector<std::atomic<int>> runs(64);
  mvda::detail::RunPieces(64, 2 * mvda::detail::kMinWorkPerThread, [&](int k) { runs[k]++; });
  for (int k = 0; k < 64; ++k) EXPECT_EQ(runs[k], 1) << k;
}

}  // namespace
