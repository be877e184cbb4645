// SignificanceE: the verdict that every component validator gives on a component, and its short
// name as the host applications list it beside the component.
#ifndef MVDA_VALIDATION_SIGNIFICANCE_H_
#define MVDA_VALIDATION_SIGNIFICANCE_H_

#include <mvda/mvda_export.h>

class MVDA_EXPORT SignificanceE {
 public:
  // The codes are stored in host projects and compared by number, so their values never change.
  // R1: the component's Q2 exceeds the limit; R2: enough single responses do; R5, RB1, RB2: the
  // other validators' reasons to keep a component. NS: not significant; N3: too many components
  // for the data; N4: the component explains (almost) nothing; U, NA, NB1: the other validators'
  // reasons to stop.
  enum Significance {
    R1 = 0,
    R2 = 1,
    R5 = 2,
    NS = 3,
    N3 = 4,
    N4 = 5,
    U = 6,
    NA = 7,
    RB1 = 8,
    RB2 = 9,
    NB1 = 10,
  };

  // The short name of a code ("R1", "NS", ...). A number outside 0..10 (from a corrupt project,
  // say) gets "?" rather than a read past the table.
  static const char* GetSignificance(int code);
  // True for the codes that keep a component: R1, R2, R5, RB1, RB2.
  static bool IsSignificant(int code);

 private:
  static const char* const mSigNames[11];
};

#endif  // MVDA_VALIDATION_SIGNIFICANCE_H_
