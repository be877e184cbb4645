#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/platform/error.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Precisions = ::testing::Types<float, double>;
template <class T>
class DataVectorStorage : public ::testing::Test {};
TYPED_TEST_SUITE(DataVectorStorage, Precisions);
template <class T>
class DataVectorEdit : public ::testing::Test {};
TYPED_TEST_SUITE(DataVectorEdit, Precisions);

// The oracle for every count: -99 elements counted one by one.
template <class T>
int CountMissing(const NCDataVector<T>& v) {
  int n = 0;
  for (T x : v) n += x == T(-99);
  return n;
}

TYPED_TEST(DataVectorStorage, WriteToCopyLeavesSourceUntouched) {
  NCDataVector<TypeParam> source(4, TypeParam(2));
  source.push_back(TypeParam(2));  // capacity 8 for 5 elements
  NCDataVector<TypeParam> copy = source;
  NCDataVector<TypeParam> assigned;
  assigned = source;
  const NCDataVector<TypeParam>& view = copy;
  EXPECT_EQ(view.GetVector(), static_cast<const NCDataVector<TypeParam>&>(source).GetVector());
  copy(3, TypeParam(-99));
  EXPECT_EQ(ToStd(source), std::vector<double>(5, 2));
  EXPECT_EQ(ToStd(assigned), std::vector<double>(5, 2));
  EXPECT_EQ(source.GetNumMisVal(), 0);
  EXPECT_EQ(copy.GetNumMisVal(), 1);
  EXPECT_EQ(copy.Capacity(), 5);  // a private buffer of exactly n elements
  EXPECT_EQ(source.Capacity(), 8);
}

TYPED_TEST(DataVectorStorage, EveryMutatorUnlinks) {
  using V = NCDataVector<TypeParam>;
  const std::vector<std::function<void(V&)>> mutators = {
      [](V& v) { v.SetSize(2); },
      [](V& v) { v.Resize(2, 0); },
      [](V& v) { v.push_back(1); },
      [](V& v) { v.InsertValues(1, 1, 0); },
      [](V& v) { v.RemoveValues(1, 1); },
      [](V& v) { v.SetAllValues(0); },
      [](V& v) { v.Remove(TypeParam(1)); },
      [](V& v) { v.Lag(1); },
      [](V& v) { v.Abs(); },
      [](V& v) { v += TypeParam(1); },
      [](V& v) { v.Normalise(); },
      [](V& v) { v.SetRange(2, v, 1, 1); },
      [](V& v) { v.Sort(nullptr, false); },
      [](V& v) { v.InterpolateMisVals(); },
  };
  for (std::size_t k = 0; k < mutators.size(); ++k) {
    SCOPED_TRACE(k);
    const V source = MakeVector<TypeParam>({1, -2, -99});
    V copy = source;
    mutators[k](copy);
    EXPECT_EQ(ToStd(source), (std::vector<double>{1, -2, -99}));
    EXPECT_EQ(source.GetNumMisVal(), 1);
    EXPECT_EQ(copy.GetNumMisVal(), CountMissing(copy));
  }
}

// Copies made, written and dropped on several threads at once; a race on the reference count
// shows as a wrong element, a double free or a leak under the sanitizers.
TYPED_TEST(DataVectorStorage, ConcurrentCopiesOfOneSource) {
  const NCDataVector<TypeParam> source(64, TypeParam(1));
  std::vector<std::thread> threads;
  std::vector<int> bad(4, 0);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&source, &bad, t] {
      for (int k = 0; k < 2000; ++k) {
        NCDataVector<TypeParam> copy(source);
        NCDataVector<TypeParam> second = copy;
        if (k % 2) second(1, TypeParam(t));
        bad[t] += copy[1] != TypeParam(1) || second[64] != TypeParam(1);
      }
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(bad, std::vector<int>(4, 0));
  EXPECT_EQ(ToStd(source), std::vector<double>(64, 1));
}

TYPED_TEST(DataVectorStorage, GrowthRule) {
  struct Case {
    int capacity, requested, expected;
  };
  const Case cases[] = {
      {0, 0, 0},          {0, 2, 4},          {0, 10, 10},        {4, 5, 8},
      {4, 9, 9},          {10, 5, 10},        {2999, 5000, 5998}, {2999, 6000, 6000},
      {3000, 3001, 6000}, {5000, 6000, 8000}, {5000, 8000, 8000}, {5000, 8001, 8001},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.capacity << " -> " << c.requested);
    NCDataVector<TypeParam> v;
    v.Reserve(c.capacity);  // exactly the capacity asked for
    ASSERT_EQ(v.Capacity(), c.capacity);
    v.SetSize(c.requested);
    EXPECT_EQ(v.Capacity(), c.expected);
    EXPECT_EQ(v.GetNumMisVal(), c.requested);
  }
}

TYPED_TEST(DataVectorStorage, ElementOneIsOn16ByteBoundary) {
  NCDataVector<TypeParam> v;
  for (int n = 1; n <= 40; ++n) {
    v.push_back(TypeParam(n));
    NCDataVector<TypeParam> fresh(n, TypeParam(0));
    NCDataVector<TypeParam> copy = v;
    copy(1, TypeParam(0));  // a buffer from ForceUnlink
    for (const NCDataVector<TypeParam>* w : {&v, &fresh, &copy})
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(w->begin()) % 16, 0u) << "n " << n;
  }
}

TYPED_TEST(DataVectorStorage, BadSizesThrowAndChangeNothing) {
  using V = NCDataVector<TypeParam>;
  struct Case {
    std::function<void(V&)> call;
    const char* message;
  };
  const Case cases[] = {
      {[](V& v) { v.SetSize(-3); }, "NCDataVector::SetSize: negative size -3"},
      {[](V& v) { v.Resize(-1, 0); }, "NCDataVector::Resize: negative size -1"},
      {[](V& v) { v.Reserve(-2); }, "NCDataVector::Reserve: negative size -2"},
      {[](V& v) { v.InsertValues(1, -4, 0); }, "NCDataVector::InsertValues: negative count -4"},
      {[](V& v) { v.InsertValues(1, INT_MAX, 0); },
       "NCDataVector::InsertValues: size 3 + 2147483647 exceeds the largest size"},
      {[](V& v) { v.CopyVector(nullptr, -1); }, "NCDataVector::CopyVector: negative size -1"},
      {[](V& v) { v += MakeVector<TypeParam>({1}); },
       "NCDataVector::operator+=: sizes 3 and 1 differ"},
      {[](V&) { V(-5); }, "NCDataVector::NCDataVector: negative size -5"},
      {[](V&) { V(-5, TypeParam(1)); }, "NCDataVector::NCDataVector: negative size -5"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    V v = MakeVector<TypeParam>({1, -99, 3});
    try {
      c.call(v);
      ADD_FAILURE() << "no exception";
    } catch (const NCError& e) {
      EXPECT_EQ(std::string(e.what()), c.message);
    }
    EXPECT_EQ(ToStd(v), (std::vector<double>{1, -99, 3}));
    EXPECT_EQ(v.GetNumMisVal(), 1);
  }
}

TYPED_TEST(DataVectorEdit, SingleWritesKeepTheCount) {
  auto v = MakeVector<TypeParam>({1, 2});
  EXPECT_EQ(v.SetAndReturn_dMisVal(1, TypeParam(-99)), 1);
  EXPECT_EQ(v.SetAndReturn_dMisVal(1, TypeParam(-99)), 0);  // twice counts once
  EXPECT_EQ(v(2, TypeParam(-99)), TypeParam(-99));
  EXPECT_EQ(v.GetNumMisVal(), 2);
  EXPECT_EQ(v.SetAndReturn_dMisVal(2, TypeParam(5)), -1);
  v.push_back(TypeParam(-99));
  EXPECT_EQ(v.GetNumMisVal(), 2);
  v.SetAllValues(TypeParam(0));
  EXPECT_EQ(v.GetNumMisVal(), 0);
  v.SetAllValues(TypeParam(-99));
  EXPECT_EQ(v.GetNumMisVal(), 3);
}

// Each case: start, operation, expected elements; the count is checked against the elements.
TYPED_TEST(DataVectorEdit, MutatorsKeepElementsAndCount) {
  using V = NCDataVector<TypeParam>;
  using T = TypeParam;
  struct Case {
    const char* name;
    std::vector<double> start;
    std::function<void(V&)> op;
    std::vector<double> expected;
  };
  NCIntegralVector<int, -99> positions(2, 0);
  positions(1) = 4;
  positions(2) = 2;
  const Case cases[] = {
      {"resize shrink", {1, -99, -99}, [](V& v) { v.Resize(1, 0); }, {1}},
      {"resize grow", {1}, [](V& v) { v.Resize(3, T(-99)); }, {1, -99, -99}},
      {"insert past end", {1, 2}, [](V& v) { v.InsertValues(10, 2, T(-99)); }, {1, 2, -99, -99}},
      {"insert self", {1, -99}, [](V& v) { v.InsertValues(2, v); }, {1, 1, -99, -99}},
      {"remove values", {1, -99, 3}, [](V& v) { v.RemoveValues(2, 10); }, {1}},
      {"set range self", {1, -99, 3, 4}, [](V& v) { v.SetRange(2, v, 1, 3); }, {1, 1, -99, 3}},
      {"remove missing", {-99, 1, -99}, [](V& v) { v.Remove(T(-99)); }, {1}},
      {"remove positions", {1, -99, 3, -99, 5}, [&](V& v) { v.Remove(positions); }, {1, 3, 5}},
      {"reduce", {1, -99, 3, 4}, [&](V& v) { v.Reduce(positions); }, {4, -99}},
      {"lag forward", {1, 2, 3, 4}, [](V& v) { v.Lag(2); }, {-99, -99, 1, 2}},
      {"lag back", {1, 2, 3, 4}, [](V& v) { v.Lag(-1); }, {2, 3, 4, -99}},
      {"lag past end", {1, 2}, [](V& v) { v.Lag(INT_MIN); }, {-99, -99}},
      {"add vectors",
       {1, -99, 3},
       [](V& v) {
         v += MakeVector<T>({1, 1, -99});
       },
       {2, -99, -99}},
      {"sum lands on marker", {-100, 1}, [](V& v) { v += T(1); }, {-99, 2}},
      {"dot divide",
       {6, 1, -99},
       [](V& v) {
         v = v.DotDivide(MakeVector<T>({3, 0, 1}));
       },
       {2, -99, -99}},
      {"sub d x v",
       {1, 2, -99},
       [](V& v) {
         v.TransformTo_Sub_d_x_Vt(2, MakeVector<T>({1, -99, 1}));
       },
       {-1, 2, -99}},
      {"normalise", {3, -99, 4}, [](V& v) { EXPECT_EQ(v.Normalise(), 5); }, {0.6, -99, 0.8}},
      {"interpolate",
       {-99, 2, -99, 4, -99},
       [](V& v) { EXPECT_TRUE(v.InterpolateMisVals()); },
       {2, 2, 3, 4, 4}},
      // (3 - 0) / (4 - 0) * (5 - 1) + 1 at abscissa 3
      {"interpolate on x",
       {1, -99, 5},
       [](V& v) {
         const V x = MakeVector<T>({0, 3, 4});
         EXPECT_TRUE(v.InterpolateMisVals(&x));
       },
       {1, 4, 5}},
      {"interpolate gap in x",
       {1, -99, 5},
       [](V& v) {
         const V x = MakeVector<T>({0, -99, 4});
         EXPECT_FALSE(v.InterpolateMisVals(&x));
       },
       {1, -99, 5}},
      // Positions 1, 2, 4 with values 1, 3, 7 lie on 2i - 1.
      {"detrend linear",
       {1, 3, -99, 7},
       [](V& v) {
         T slope = 0, intercept = 0;
         EXPECT_TRUE(v.DetrendLinear(slope, intercept));
         EXPECT_NEAR(slope, 2, 1e-6);
         EXPECT_NEAR(intercept, -1, 1e-6);
       },
       {0, 0, -99, 0}},
      // mean 2, s = 1: (x - 2) / 1
      {"snv", {1, -99, 2, 3}, [](V& v) { v = v.SNV(); }, {-1, -99, 0, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    V v = MakeVector<T>(c.start);
    c.op(v);
    ASSERT_EQ(v.Size(), static_cast<int>(c.expected.size()));
    for (int i = 1; i <= v.Size(); ++i) EXPECT_NEAR(v[i], c.expected[i - 1], 1e-6) << i;
    EXPECT_EQ(v.GetNumMisVal(), CountMissing(v));
  }
}

TYPED_TEST(DataVectorEdit, SortIsStableWithMissingLast) {
  const auto source = MakeVector<TypeParam>({3, -99, 1, 3, 2});
  NCDataVector<TypeParam> sorted;
  auto v = source;
  const NCIntegralVector<int, -99> up = v.Sort(&sorted, true);
  EXPECT_EQ(ToStd(sorted), (std::vector<double>{1, 2, 3, 3, -99}));
  EXPECT_EQ(std::vector<int>(up.begin(), up.end()), (std::vector<int>{3, 5, 1, 4, 2}));
  EXPECT_EQ(sorted.GetNumMisVal(), 1);
  EXPECT_EQ(ToStd(v), ToStd(source));  // with a target the source stays as it was
  const NCIntegralVector<int, -99> down = v.Sort(nullptr, false);
  EXPECT_EQ(ToStd(v), (std::vector<double>{3, 3, 2, 1, -99}));
  EXPECT_EQ(std::vector<int>(down.begin(), down.end()), (std::vector<int>{1, 4, 5, 3, 2}));
}

}  // namespace
