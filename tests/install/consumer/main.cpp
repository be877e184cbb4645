// A host program as small as can be: one vector with a missing value, one statistic.
#include <mvda/mvda.h>

#include <iostream>

int main() {
  NCDataVector<float> v(3, 1.0f);
  v(2, -99.0f);
  v(3, 3.0f);
  std::cout << "mean " << static_cast<double>(v.GetMean()) << "\n";
  return v.GetNumMisVal() == 1 ? 0 : 1;
}
