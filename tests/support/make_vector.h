// Test helpers that build containers from literals; -99 marks a missing element.
#ifndef MVDA_TESTS_SUPPORT_MAKE_VECTOR_H_
#define MVDA_TESTS_SUPPORT_MAKE_VECTOR_H_

#include <mvda/containers/data_vector.h>

#include <vector>

template <class T>
NCDataVector<T> MakeVector(const std::vector<double>& values) {
  NCDataVector<T> v(static_cast<int>(values.size()), T(0));
  for (int i = 1; i <= v.Size(); ++i) v(i, static_cast<T>(values[i - 1]));
  return v;
}

template <class T>
std::vector<double> ToStd(const NCDataVector<T>& v) {
  return std::vector<double>(v.begin(), v.end());
}

#endif  // MVDA_TESTS_SUPPORT_MAKE_VECTOR_H_
