// NCScale, the per-variable centring and scaling model of single-precision data, and NCScaleError,
// the exception it throws.
#ifndef MVDA_PREPROCESS_SCALE_H_
#define MVDA_PREPROCESS_SCALE_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream.h>

#include <cstdint>
#include <memory>
#include <vector>

// A scaling failure: the message is the host's text of a language-string id, fetched when the
// error is made, and the error names the variable (1-based; 0 where none applies) and a code.
class MVDA_EXPORT NCScaleError : public NCError {
 public:
  // Code 3 is shared by a variable without variation (text 10072) and one whose scale factor
  // would exceed 1e35 (text 10073): hosts tell the two apart by the message only.
  enum Error : std::int32_t {
    kTooFewValues = 2,      // fewer than 2 present values (10071)
    kVarianceTooSmall = 3,  // zero sum of squares (10072) or factor above 1e35 (10073)
    kVarianceTooLarge = 4,  // factor below 1e-35 (10074)
    kSizeMismatch = 6,      // the matrix has another number of variables than the model (10070)
  };

  // message_id is resolved through LanguageString::Get.
  NCScaleError(int variable, Error code, int message_id);
  NCScaleError(const NCScaleError&) = default;
  NCScaleError& operator=(const NCScaleError&) = default;
  ~NCScaleError() override;

  // A heap copy of the same dynamic type, for storing the error or throwing it again on another
  // thread; the caller owns it.
  virtual NCScaleError* Clone() const;

  int GetVariable() const { return variable_; }
  Error GetError() const { return code_; }

 private:
  std::int32_t variable_;
  Error code_;
};

// For each of n variables: a scaling type, a centring value (the column mean; -99 = not centred)
// and a multiplier (-99 = not scaled). ScaleMatrix either fits the model to a matrix and applies
// it, or applies the stored model to new observations with the same variables.
//
//   type              centre          factor
//   1 kNone           none            none
//   2 kCentre         column mean     none
//   3 kPareto         column mean     1 / sqrt(sd)
//   4 kUnitVariance   column mean     1 / sd
//   any other code    left as stored  left as stored
//
// with sd the sample standard deviation over the column's present values (divisor m_j - 1, m_j
// the present count of that column).
//
// Sharing: assignment makes both models refer to the same mean vector, scale vector and type
// array, so a later SetType, fit or read through either is seen by both (the count n itself is
// copied). Copy construction instead makes a deep copy, with n taken from the scale vector's
// length: a copied model can be refitted without touching its source. Either way both objects
// may be destroyed in any order.
//
// Indices are not checked. Thread-safety: one model is used by one thread at a time, together
// with every model it shares its arrays with.
class MVDA_EXPORT NCScale : public UStreamBase {
 public:
  enum Scaling : std::int32_t { kNone = 1, kCentre = 2, kPareto = 3, kUnitVariance = 4 };

  NCScale();                // no variables
  explicit NCScale(int n);  // n variables of type kNone, not fitted; NCError when n < 0
  NCScale(const NCScale& other);
  NCScale& operator=(const NCScale& other);
  ~NCScale() override;

  int Size() const { return n_; }
  Scaling GetScaleType(int j) const { return static_cast<Scaling>((*types_)[j]); }
  // Setting another code than the variable has makes its centre and factor missing: only that
  // variable has to be fitted again. Any code may be stored; codes outside 1..4 are left alone
  // by a fit.
  void SetType(int j, Scaling code);
  // The fitted values, elements 1..Size(); -99 where a variable is not centred or not scaled.
  const NCDataVector<float>& GetMean() const { return *mean_; }
  const NCDataVector<float>& GetScale() const { return *scale_; }

  // Drops count variables from first on. The mean and scale vectors lose the part of that range
  // they hold; the types after the range move down; n shrinks by count. When first > n no type
  // moves but n still shrinks, and the type array keeps its allocation in every case. NCError,
  // with nothing changed, when count is negative or larger than n.
  void RemoveValues(int first, int count);

  // newModel true fits the model to X and applies it (X's column count must equal Size()):
  //   1. centres of types 2..4 become the column means over present values (kNone: missing);
  //   2. X is centred by every present centre (a missing centre leaves its column alone);
  //   3. factors of types 3 and 4 are computed variable by variable in ascending order, from the
  //      sum of squares of the centred column in extended precision; the first variable that
  //      cannot be scaled throws NCScaleError (too few values: code 2, 10071; no variation:
  //      code 3, 10072; factor above 1e35: code 3, 10073; below 1e-35: code 4, 10074). A NaN
  //      factor passes both bounds and is stored;
  //   4. X's columns are multiplied by every present factor.
  // A failure in step 3 leaves X centred and the centres (and the factors of the variables before
  // the failing one) replaced. newModel false applies the stored centres and factors as steps 2
  // and 4. A column count other than Size() throws NCScaleError(0, kSizeMismatch, 10070) with X
  // and the model untouched; a null X throws NCError.
  void ScaleMatrix(NCDataMatrix<float>* X, bool newModel);

  // The host's name of a scaling type (language strings 10066..10069); "" for other codes. The
  // text is fetched at each call and stays valid for the life of the process.
  static const char* GetScaleString(Scaling code);

  // --- Stream: record "NCS" version 2 and a directory of the mean vector (entry 0) and the scale
  // vector (1) as NCDataVector<float> objects, written in full by every model (also by copies
  // sharing them in one pass), and the n type codes (2, four bytes each). A read
  // takes n from the mean vector, requires the scale vector and the codes to match it, and
  // accepts version 2 only. A failed read (false; a TwStreamError is caught) leaves the model as
  // it was.
  static UStreamableData MyStreamableData;
  static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
  static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableRead(std::istream& is) override;

 private:
  void Fit(NCDataMatrix<float>& X);
  void Apply(NCDataMatrix<float>& X) const;

  std::shared_ptr<NCDataVector<float>> mean_;
  std::shared_ptr<NCDataVector<float>> scale_;
  std::shared_ptr<std::vector<std::int32_t>> types_;  // 1-based: element 0 is unused
  int n_ = 0;
};

#endif  // MVDA_PREPROCESS_SCALE_H_
