// NCScale and NCScaleError: fitting and applying the scaling model. Streaming is in
// scale_stream.cpp.
#include <mvda/platform/language_string.h>
#include <mvda/preprocess/scale.h>

#include <cmath>
#include <mutex>
#include <set>
#include <string>

namespace {

constexpr float kMis = -99.0f;

[[noreturn]] void Fail(const char* place, const std::string& fault) {
  throw NCError(std::string("NCScale::") + place + ": " + fault);
}

bool IsFitted(std::int32_t code) {
  return code >= NCScale::kCentre && code <= NCScale::kUnitVariance;
}

// Elements 1..n of v with every missing element replaced by `neutral` (0 for a centre, 1 for a
// factor), so that the container's element-wise operations leave those columns as they are;
// `any` tells whether v held a present element at all. v may be longer than n after
// RemoveValues past the end.
NCDataVector<float> Neutralised(const NCDataVector<float>& v, int n, float neutral, bool& any) {
  NCDataVector<float> out(n, neutral);
  any = false;
  for (int j = 1; j <= n; ++j)
    if (v[j] != kMis) {
      out(j, v[j]);
      any = true;
    }
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// NCScaleError

NCScaleError::NCScaleError(int variable, Error code, int message_id)
    : NCError(LanguageString::Get(message_id), kNumerical), variable_(variable), code_(code) {}

NCScaleError::~NCScaleError() = default;

NCScaleError* NCScaleError::Clone() const { return new NCScaleError(*this); }

// ---------------------------------------------------------------------------------------------
// Construction and sharing

NCScale::NCScale()
    : mean_(std::make_shared<NCDataVector<float>>()),
      scale_(std::make_shared<NCDataVector<float>>()),
      types_(std::make_shared<std::vector<std::int32_t>>(1, 0)) {}

// Centres and factors start missing: nothing is fitted yet, which is also what type kNone stores.
NCScale::NCScale(int n) {
  if (n < 0) Fail("NCScale", "negative number of variables " + std::to_string(n));
  mean_ = std::make_shared<NCDataVector<float>>(n, kMis);
  scale_ = std::make_shared<NCDataVector<float>>(n, kMis);
  types_ = std::make_shared<std::vector<std::int32_t>>(static_cast<std::size_t>(n) + 1, kNone);
  (*types_)[0] = 0;
  n_ = n;
}

NCScale::NCScale(const NCScale& other)
    : UStreamBase(other),
      mean_(std::make_shared<NCDataVector<float>>()),
      scale_(std::make_shared<NCDataVector<float>>()) {
  mean_->CopyContent(*other.mean_);
  scale_->CopyContent(*other.scale_);
  n_ = scale_->Size();
  // The type entries of the copied variables; an array shortened by RemoveValues past its end
  // still has at least n + 1 elements, and missing ones become kNone.
  types_ = std::make_shared<std::vector<std::int32_t>>(static_cast<std::size_t>(n_) + 1, kNone);
  (*types_)[0] = 0;
  const std::vector<std::int32_t>& from = *other.types_;
  for (int j = 1; j <= n_ && j < static_cast<int>(from.size()); ++j) (*types_)[j] = from[j];
}

NCScale& NCScale::operator=(const NCScale& other) {
  UStreamBase::operator=(other);
  mean_ = other.mean_;
  scale_ = other.scale_;
  types_ = other.types_;
  n_ = other.n_;
  return *this;
}

NCScale::~NCScale() = default;

// ---------------------------------------------------------------------------------------------
// Types

void NCScale::SetType(int j, Scaling code) {
  if ((*types_)[j] == code) return;
  (*mean_)(j, kMis);
  (*scale_)(j, kMis);
  (*types_)[j] = code;
}

void NCScale::RemoveValues(int first, int count) {
  if (count < 0 || count > n_)
    Fail("RemoveValues",
         "count " + std::to_string(count) + " for " + std::to_string(n_) + " variables");
  mean_->RemoveValues(first, count);
  scale_->RemoveValues(first, count);
  std::vector<std::int32_t>& type = *types_;
  for (int j = first; j <= n_; ++j)
    if (j + count <= n_) type[j] = type[j + count];
  n_ -= count;
}

const char* NCScale::GetScaleString(Scaling code) {
  static const int kIds[] = {10066, 10067, 10068, 10069};
  if (code < kNone || code > kUnitVariance) return "";
  // Every text handed out is kept: a host may replace the texts at any time, and a pointer that
  // a caller still holds must not dangle. Only distinct texts are kept, so this stays small.
  static std::mutex lock;
  static std::set<std::string> texts;
  const std::string text = LanguageString::Get(kIds[code - kNone]);
  std::lock_guard<std::mutex> guard(lock);
  return texts.insert(text).first->c_str();
}

// ---------------------------------------------------------------------------------------------
// Scaling

void NCScale::ScaleMatrix(NCDataMatrix<float>* X, bool newModel) {
  if (!X) Fail("ScaleMatrix", "null matrix");
  if (X->SizeColumns() != n_) throw NCScaleError(0, NCScaleError::kSizeMismatch, 10070);
  if (newModel) {
    Fit(*X);
  } else {
    Apply(*X);
  }
}

void NCScale::Apply(NCDataMatrix<float>& X) const {
  bool anyCentre = false, anyFactor = false;
  const NCDataVector<float> centre = Neutralised(*mean_, n_, 0.0f, anyCentre);
  const NCDataVector<float> factor = Neutralised(*scale_, n_, 1.0f, anyFactor);
  if (anyCentre) X.TransformToDotSubRowVector(centre);
  if (anyFactor) X.DotMultiplyVector(factor);
}

void NCScale::Fit(NCDataMatrix<float>& X) {
  const std::vector<std::int32_t>& type = *types_;
  NCDataVector<float>& mean = *mean_;
  NCDataVector<float>& scale = *scale_;

  for (int j = 1; j <= n_; ++j) {
    if (type[j] == kNone) {
      mean(j, kMis);
    } else if (IsFitted(type[j])) {
      const long double m = X.GetColumnMean(j);
      float centre = static_cast<float>(m);
      // A mean near -99 can round onto the marker in single precision and would then read as
      // "not centred"; it is moved to the next float instead.
      if (centre == kMis && m != mvda::kMissing) centre = std::nextafter(kMis, 0.0f);
      mean(j, centre);
    }
  }
  bool anyCentre = false;
  const NCDataVector<float> centre = Neutralised(mean, n_, 0.0f, anyCentre);
  if (anyCentre) X.TransformToDotSubRowVector(centre);

  const int rows = X.SizeRows();
  for (int j = 1; j <= n_; ++j) {
    if (type[j] == kNone || type[j] == kCentre) {
      scale(j, kMis);
      continue;
    }
    if (type[j] != kPareto && type[j] != kUnitVariance) continue;
    const int present = rows - X.GetColumnMisVal(j);
    if (present < 2) throw NCScaleError(j, NCScaleError::kTooFewValues, 10071);
    const long double ss = X.GetColumnSS(j, 0.0f);  // the column is centred already
    if (ss == 0) throw NCScaleError(j, NCScaleError::kVarianceTooSmall, 10072);
    const long double variance = ss / (present - 1);
    const long double f =
        type[j] == kPareto ? 1 / std::sqrt(std::sqrt(variance)) : 1 / std::sqrt(variance);
    if (f > 1e35L) throw NCScaleError(j, NCScaleError::kVarianceTooSmall, 10073);
    if (f < 1e-35L) throw NCScaleError(j, NCScaleError::kVarianceTooLarge, 10074);
    scale(j, static_cast<float>(f));
  }
  bool anyFactor = false;
  const NCDataVector<float> factor = Neutralised(scale, n_, 1.0f, anyFactor);
  if (anyFactor) X.DotMultiplyVector(factor);
}
