#include <mvda/containers/data_matrix.h>
#include <mvda/models/pca.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/validation/component_validators.h>

#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Rows = std::vector<std::vector<double>>;
using Matrix = NCDataMatrix<float>;

// A model that is nothing but its residuals, to put a chosen sum of squares under the validator.
NCPCA ModelOf(const Rows& residuals) {
  const Matrix E = MakeMatrix(residuals);
  const Matrix none(0, 0, 0.0f);
  return NCPCA(&E, &none, &none, 10);
}

// The reference is the residual SS when the model is set; then the model's residuals change
// (assignment keeps the validator's pointer) and IsValid compares now / reference with the limit.
TEST(PcaSsComponentValidator, RatioAgainstLimit) {
  const double tiny = std::ldexp(1.0, -50);  // tiny^2 = 2^-100 < 1e-30 < 2^-98 = (2 tiny)^2
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* name;
    Rows before, now;
    float limit;
    bool valid;
  };
  const Case cases[] = {
      {"ratio equal to the limit", {{1, 1}, {1, 1}}, {{1, 0}, {0, 0}}, 0.25f, false},  // 1 / 4
      {"ratio just above", {{1, 1}, {1, 1}}, {{1, 0}, {0, 0.125}}, 0.25f, true},  // 1.015625 / 4
      {"ratio below", {{2, 0}}, {{1, -99}}, 0.5f, false},                         // 1 / 4
      {"nothing left, negative limit", {{2, 0}}, {{0, 0}}, -1.0f, true},          // 0 > -1
      {"now missing", {{2, 0}}, {{-99, -99}}, -100.0f, false},  // not read as -99 / 4
      {"now NaN", {{2, 0}}, {{nan, 1}}, -1.0f, false},
      {"reference missing", {{-99}}, {{5}}, 0.0f, false},
      {"reference zero", {{0, 0}}, {{5, 5}}, 0.0f, false},
      {"reference below 1e-30", {{tiny}}, {{1}}, 0.0f, false},  // ratio 2^100, still false
      {"reference above 1e-30", {{2 * tiny}}, {{2 * tiny}}, 0.5f, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NCPCA model = ModelOf(c.before);
    PCA_SS_ComponentValidator validator(&model, c.limit);
    model = ModelOf(c.now);
    EXPECT_EQ(validator.IsValid(), c.valid);
    EXPECT_EQ(validator.GetLimit(), c.limit);
  }
}

// SetPCAModel takes the new model's SS as the reference; a non-finite one is refused with the
// text of language string 10374, and a null model with a message of its own, the validator
// keeping its model and reference.
TEST(PcaSsComponentValidator, SetModel) {
  NCPCA first = ModelOf({{3, 4}});                                           // SS 25
  NCPCA second = ModelOf({{1, 2}});                                          // SS 5
  NCPCA infinite = ModelOf({{1, std::numeric_limits<double>::infinity()}});  // SS inf
  NCPCA notANumber = ModelOf({{std::numeric_limits<double>::quiet_NaN()}});
  PCA_SS_ComponentValidator validator(&first, 0.5f);
  EXPECT_EQ(validator.GetReference(), 25.0f);
  validator.SetPCAModel(&second);
  EXPECT_EQ(validator.GetReference(), 5.0f);
  EXPECT_EQ(validator.GetPCAModel(), &second);
  for (NCPCA* bad : {&infinite, &notANumber}) {
    try {
      validator.SetPCAModel(bad);
      ADD_FAILURE() << "accepted";
    } catch (const NCError& e) {
      EXPECT_EQ(e.GetMessage(), LanguageString::Get(10374));
    }
  }
  EXPECT_THROW(validator.SetPCAModel(nullptr), NCError);
  EXPECT_THROW(PCA_SS_ComponentValidator(&infinite, 0.5f), NCError);
  EXPECT_EQ(validator.GetPCAModel(), &second);
  EXPECT_EQ(validator.GetReference(), 5.0f);
  NCComponentValidator& rule = validator;  // asked before a component is computed
  EXPECT_TRUE(rule.IsPreComponentValidator());
}

}  // namespace
