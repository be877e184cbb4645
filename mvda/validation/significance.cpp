#include <mvda/validation/significance.h>

const char* const SignificanceE::mSigNames[11] = {"R1", "R2", "R5",  "NS",  "N3", "N4",
                                                  "U",  "NA", "RB1", "RB2", "NB1"};

const char* SignificanceE::GetSignificance(int code) {
  return code >= 0 && code <= NB1 ? mSigNames[code] : "?";
}

bool SignificanceE::IsSignificant(int code) {
  return code == R1 || code == R2 || code == R5 || code == RB1 || code == RB2;
}
