// Sums over the present elements of a 1-based buffer. Every NCDataVector statistic reduces to one
// of these loops; they take raw buffers so column workers can run them without building vectors.
#ifndef MVDA_CONTAINERS_DETAIL_PRESENT_SUMS_H_
#define MVDA_CONTAINERS_DETAIL_PRESENT_SUMS_H_

namespace mvda::detail {

// Sum of x[1..n], skipping elements equal to the missing marker -99; 0 when none is present (the
// caller decides whether that means -99). A NaN is an ordinary value and makes the sum NaN.
// `missing` is the caller's count of missing elements; with none, a comparison-free unrolled loop
// runs instead, since complete spectra are the common case. Float elements are summed in double.
// Thread-safe: reads x only.
template <class T>
long double SumPresent(const T* x, int n, int missing);

// Sum of (x[i] - centre)^2 over the present elements of x[1..n]; 0 when none is present. The same
// two loops as SumPresent.
template <class T>
long double SumSquaredDeviations(const T* x, int n, int missing, double centre);

// The masked sums of a NIPALS projection of v on x, both 1-based of length n, over the positions
// i not excluded (exclude is 1-based or null; position i is skipped when exclude[i] == code):
//   xv  += x[i]*v[i] and xx += x[i]^2 where both are present,
//   all += x[i]^2 wherever x[i] is present.
// `pairs` is how many positions had both present. xMissing and vMissing are the callers' missing
// counts; they pick a comparison-free loop when both are 0.
struct PairSums {
  double xv = 0, xx = 0, all = 0;
  int pairs = 0;
};
template <class T>
PairSums SumPairs(const T* x, int xMissing, const T* v, int vMissing, int n, const int* exclude,
                  int code);

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_PRESENT_SUMS_H_
