#include <mvda/containers/data_matrix.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/stream.h>
#include <mvda/preprocess/scale.h>

#include <cmath>
#include <memory>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing
#include "support/stream_bytes.h"

namespace {

using Rows = std::vector<std::vector<double>>;
constexpr double kM = -99;

Rows ToRows(const NCDataMatrix<float>& m) {
  Rows rows;
  for (const auto& row : m) rows.push_back(ToStd(row));
  return rows;
}

void ExpectRowsNear(const NCDataMatrix<float>& m, const Rows& expected) {
  ASSERT_EQ(m.SizeRows(), static_cast<int>(expected.size()));
  for (int i = 1; i <= m.SizeRows(); ++i)
    for (int j = 1; j <= m.SizeColumns(); ++j) EXPECT_NEAR(m[i][j], expected[i - 1][j - 1], 1e-6);
}

NCScale MakeModel(const std::vector<NCScale::Scaling>& types) {
  NCScale model(static_cast<int>(types.size()));
  for (std::size_t j = 0; j < types.size(); ++j) model.SetType(static_cast<int>(j) + 1, types[j]);
  return model;
}

// Columns 3 and 4 hold 0, 8, 4 (one gap): mean 4, SS 16 + 16 + 0 = 32 over m - 1 = 2 gives
// variance 16 and sd 4, so Pareto multiplies by 1/sqrt(4) = 0.5 and unit variance by 1/4.
// Column 2 has mean (1 + 3 + 5) / 3 = 3; column 1 is left raw.
TEST(ScaleFit, EveryTypeCentresAndScalesItsColumn) {
  NCDataMatrix<float> x = MakeMatrix({{1, 1, 0, 0}, {2, 3, 8, 8}, {3, kM, kM, kM}, {kM, 5, 4, 4}});
  NCScale model =
      MakeModel({NCScale::kNone, NCScale::kCentre, NCScale::kPareto, NCScale::kUnitVariance});
  model.ScaleMatrix(&x, true);
  EXPECT_EQ(ToRows(x), (Rows{{1, -2, -2, -1}, {2, 0, 2, 1}, {3, kM, kM, kM}, {kM, 2, 0, 0}}));
  EXPECT_EQ(ToStd(model.GetMean()), (std::vector<double>{kM, 3, 4, 4}));
  EXPECT_EQ(ToStd(model.GetScale()), (std::vector<double>{kM, kM, 0.5, 0.25}));

  // The stored model applied to new observations: (z - mean) * factor, gaps kept.
  NCDataMatrix<float> z = MakeMatrix({{7, 7, 6, kM}});
  model.ScaleMatrix(&z, false);
  EXPECT_EQ(ToRows(z), (Rows{{7, 4, 1, kM}}));
}

// Exactly two present values: mean 2, SS 2 over a divisor of 1, factor 1/sqrt(2).
TEST(ScaleFit, TwoPresentValuesAreEnough) {
  NCDataMatrix<float> x = MakeMatrix({{1}, {3}, {kM}});
  NCScale model = MakeModel({NCScale::kUnitVariance});
  model.ScaleMatrix(&x, true);
  ExpectRowsNear(x, {{-std::sqrt(0.5)}, {std::sqrt(0.5)}, {kM}});
}

// A code outside 1..4 keeps whatever centre and factor the model holds, and they are applied.
// Such a model comes from a stream: the last four bytes are the last variable's type code.
TEST(ScaleFit, OtherCodesKeepTheirStoredValues) {
  NCDataMatrix<float> x = MakeMatrix({{0}, {8}, {4}});
  NCScale fitted = MakeModel({NCScale::kUnitVariance});
  fitted.ScaleMatrix(&x, true);  // mean 4, factor 0.25
  std::string bytes = Bytes(fitted);
  bytes[bytes.size() - 4] = 7;  // was 04 00 00 00
  NCScale model;
  ASSERT_TRUE(ReadInto(bytes, model));
  ASSERT_EQ(model.GetScaleType(1), 7);
  NCDataMatrix<float> y = MakeMatrix({{100}, {kM}, {-100}});
  model.ScaleMatrix(&y, true);
  EXPECT_EQ(ToRows(y), (Rows{{24}, {kM}, {-26}}));
  EXPECT_EQ(ToStd(model.GetScale()), std::vector<double>{0.25});
}

TEST(ScaleFit, FailuresNameTheVariableCodeAndText) {
  struct Case {
    const char* name;
    NCScale::Scaling type;
    std::vector<double> column;
    NCScaleError::Error code;
    int text;
  };
  const Case cases[] = {
      {"one present value",
       NCScale::kUnitVariance,
       {5, kM, kM},
       NCScaleError::kTooFewValues,
       10071},
      {"nothing present", NCScale::kPareto, {kM, kM, kM}, NCScaleError::kTooFewValues, 10071},
      {"constant", NCScale::kPareto, {3, 3, 3}, NCScaleError::kVarianceTooSmall, 10072},
      // sd = sqrt(2e-72) = 1.4e-36: factor 7e35 > 1e35
      {"tiny spread",
       NCScale::kUnitVariance,
       {1e-36, -1e-36, kM},
       NCScaleError::kVarianceTooSmall,
       10073},
      // sd = 1.4e36: factor 7e-37 < 1e-35
      {"huge spread",
       NCScale::kUnitVariance,
       {1e36, -1e36, kM},
       NCScaleError::kVarianceTooLarge,
       10074},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NCDataMatrix<float> x(3, 2, 1.0f);
    x.SetColumn(1, MakeVector<float>({1, 2, 3}));
    x.SetColumn(2, MakeVector<float>(c.column));
    NCScale model = MakeModel({NCScale::kUnitVariance, c.type});
    try {
      model.ScaleMatrix(&x, true);
      ADD_FAILURE() << "no error";
    } catch (const NCScaleError& e) {
      EXPECT_EQ(e.GetVariable(), 2);
      EXPECT_EQ(e.GetError(), c.code);
      EXPECT_EQ(e.GetMessage(), LanguageString::Get(c.text));
      EXPECT_EQ(e.GetLevel(), NCError::kNumerical);
      const std::unique_ptr<NCScaleError> copy(e.Clone());
      EXPECT_EQ(typeid(*copy), typeid(NCScaleError));
      EXPECT_EQ(copy->GetVariable(), 2);
      EXPECT_EQ(copy->GetError(), c.code);
      EXPECT_EQ(copy->GetMessage(), e.GetMessage());
    }
  }
}

// Column 2 is constant: the fit stops there, after centring X and replacing the means and the
// factor of column 1 (sd of -2, 0, 2 is 2), but before any column was multiplied.
TEST(ScaleFit, FailedFitLeavesXCentredAndEarlierFactorsSet) {
  NCDataMatrix<float> x = MakeMatrix({{1, 5}, {3, 5}, {5, 5}});
  NCScale model = MakeModel({NCScale::kUnitVariance, NCScale::kUnitVariance});
  EXPECT_THROW(model.ScaleMatrix(&x, true), NCScaleError);
  EXPECT_EQ(ToRows(x), (Rows{{-2, 0}, {0, 0}, {2, 0}}));
  EXPECT_EQ(ToStd(model.GetMean()), (std::vector<double>{3, 5}));
  EXPECT_EQ(ToStd(model.GetScale()), (std::vector<double>{0.5, kM}));
}

TEST(ScaleFit, WrongColumnCountLeavesEverythingAlone) {
  NCScale model = MakeModel({NCScale::kCentre});
  for (const bool fit : {false, true}) {
    SCOPED_TRACE(fit);
    NCDataMatrix<float> x = MakeMatrix({{1, 2}, {3, 4}});
    try {
      model.ScaleMatrix(&x, fit);
      ADD_FAILURE() << "no error";
    } catch (const NCScaleError& e) {
      EXPECT_EQ(e.GetVariable(), 0);
      EXPECT_EQ(e.GetError(), NCScaleError::kSizeMismatch);
      EXPECT_EQ(e.GetMessage(), LanguageString::Get(10070));
    }
    EXPECT_EQ(ToRows(x), (Rows{{1, 2}, {3, 4}}));
    EXPECT_EQ(ToStd(model.GetMean()), std::vector<double>{kM});
  }
  EXPECT_THROW(model.ScaleMatrix(nullptr, true), NCError);
}

TEST(ScaleModel, SetTypeInvalidatesOnlyAChangedVariable) {
  NCDataMatrix<float> x = MakeMatrix({{0, 0}, {8, 2}, {4, 4}});
  NCScale model = MakeModel({NCScale::kUnitVariance, NCScale::kCentre});
  model.ScaleMatrix(&x, true);
  model.SetType(1, NCScale::kUnitVariance);  // unchanged: stays fitted
  model.SetType(2, NCScale::kPareto);
  EXPECT_EQ(ToStd(model.GetMean()), (std::vector<double>{4, kM}));
  EXPECT_EQ(ToStd(model.GetScale()), (std::vector<double>{0.25, kM}));
  EXPECT_EQ(model.GetScaleType(2), NCScale::kPareto);
}

// Types 1 2 3 4 1 without 2 and 3 become 1 4 1; past the end only n shrinks.
TEST(ScaleModel, RemoveValuesShiftsTypesAndShrinksN) {
  NCScale model = MakeModel(
      {NCScale::kNone, NCScale::kCentre, NCScale::kPareto, NCScale::kUnitVariance, NCScale::kNone});
  model.RemoveValues(2, 2);
  EXPECT_EQ(model.Size(), 3);
  EXPECT_EQ(model.GetMean().Size(), 3);
  EXPECT_EQ(model.GetScaleType(2), NCScale::kUnitVariance);
  EXPECT_EQ(model.GetScaleType(3), NCScale::kNone);
  model.RemoveValues(7, 1);
  EXPECT_EQ(model.Size(), 2);
  EXPECT_EQ(model.GetMean().Size(), 3);
  EXPECT_EQ(model.GetScaleType(2), NCScale::kUnitVariance);
  EXPECT_THROW(model.RemoveValues(1, -1), NCError);
  EXPECT_THROW(model.RemoveValues(1, 3), NCError);
  EXPECT_EQ(model.Size(), 2);
}

TEST(ScaleModel, AssignmentSharesCopyConstructionDoesNot) {
  auto source = std::make_unique<NCScale>(MakeModel({NCScale::kCentre, NCScale::kCentre}));
  NCScale shared;
  shared = *source;
  const NCScale deep(*source);
  NCDataMatrix<float> x = MakeMatrix({{1, 2}, {3, 6}});
  shared.ScaleMatrix(&x, true);
  source->SetType(2, NCScale::kNone);
  EXPECT_EQ(ToStd(source->GetMean()), (std::vector<double>{2, kM}));  // the fit through `shared`
  EXPECT_EQ(shared.GetScaleType(2), NCScale::kNone);
  EXPECT_EQ(ToStd(deep.GetMean()), (std::vector<double>{kM, kM}));
  EXPECT_EQ(deep.GetScaleType(2), NCScale::kCentre);
  source.reset();  // the arrays outlive the model that made them
  EXPECT_EQ(ToStd(shared.GetMean()), (std::vector<double>{2, kM}));
}

TEST(ScaleModel, ScaleStringsFollowTheLanguageTable) {
  const int ids[] = {10066, 10067, 10068, 10069};
  for (int code = 1; code <= 4; ++code)
    EXPECT_EQ(NCScale::GetScaleString(static_cast<NCScale::Scaling>(code)),
              LanguageString::Get(ids[code - 1]));
  EXPECT_STREQ(NCScale::GetScaleString(static_cast<NCScale::Scaling>(0)), "");
  EXPECT_STREQ(NCScale::GetScaleString(static_cast<NCScale::Scaling>(5)), "");
  const char* before = NCScale::GetScaleString(NCScale::kPareto);
  const std::string kept = before;
  LanguageString::Set(10068, "Pareto-Skalierung");
  EXPECT_STREQ(NCScale::GetScaleString(NCScale::kPareto), "Pareto-Skalierung");
  LanguageString::ResetToBuiltIn();
  EXPECT_EQ(before, kept);  // a text handed out earlier is still readable
}

TEST(ScaleStream, RoundTripAndRefusals) {
  NCDataMatrix<float> x = MakeMatrix({{0, 1, 2}, {8, kM, 4}, {4, 3, 9}});
  NCScale model = MakeModel({NCScale::kUnitVariance, NCScale::kCentre, NCScale::kNone});
  model.ScaleMatrix(&x, true);
  const std::string bytes = Bytes(model);

  NCScale read(1);
  ASSERT_TRUE(ReadInto(bytes, read));
  EXPECT_EQ(read.Size(), 3);
  EXPECT_EQ(ToStd(read.GetMean()), ToStd(model.GetMean()));
  EXPECT_EQ(ToStd(read.GetScale()), ToStd(model.GetScale()));
  for (int j = 1; j <= 3; ++j) EXPECT_EQ(read.GetScaleType(j), model.GetScaleType(j));

  // The record is a 4-byte length, "NCS" and the 4-byte version at offset 7.
  for (const char version : {1, 3}) {
    std::string other = bytes;
    other[7] = version;
    NCScale untouched(1);
    EXPECT_FALSE(ReadInto(other, untouched)) << int(version);
    EXPECT_EQ(untouched.Size(), 1);
  }
  for (std::size_t n = 0; n < bytes.size(); ++n) {
    NCScale untouched(1);
    EXPECT_FALSE(ReadInto(bytes.substr(0, n), untouched)) << n;
    EXPECT_EQ(untouched.Size(), 1) << n;
    EXPECT_EQ(untouched.GetScaleType(1), NCScale::kNone) << n;
  }
}

}  // namespace
