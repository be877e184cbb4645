// NCPCA: construction, sharing, the NIPALS component and deflation. Streaming is in
// pca_stream.cpp.
#include <mvda/models/pca.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>

#include <cmath>
#include <string>

namespace {

constexpr float kMis = -99.0f;

[[noreturn]] void Fail(const char* place, const std::string& fault) {
  throw NCError(std::string("NCPCA::") + place + ": " + fault);
}

std::string Shape(const NCDataMatrix<float>& m) {
  return std::to_string(m.SizeRows()) + " x " + std::to_string(m.SizeColumns());
}

// Positive while d > 1e-10 and falling by 10 per decade of d, so that -c climbs to 0 as the
// iteration converges and serves directly as a progress value.
double ConvergenceMeasure(double d) { return d > 1e-30 ? 10 * (std::log10(d) + 10) : -1.0; }

// The loading of every variable of the left-out group becomes missing, which also keeps those
// variables out of the score regression and out of the loading's length.
void ExcludeVariables(NCDataVector<float>& p, const NCIntegralVector<int, -99>* groups, int group) {
  if (!groups) return;
  for (int j = 1; j <= p.Size(); ++j)
    if ((*groups)[j] == group) p(j, kMis);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction and sharing

NCPCA::NCPCA()
    : pprim_(std::make_shared<Matrix>()),
      tprim_(std::make_shared<Matrix>()),
      residuals_(std::make_shared<Matrix>()) {}

NCPCA::NCPCA(const Matrix* X, int maxIterations) {
  if (!X) Fail("NCPCA", "null data matrix");
  if (maxIterations < 1)
    Fail("NCPCA", "maximum of iterations " + std::to_string(maxIterations) + ", at least 1 needed");
  residuals_ = std::make_shared<Matrix>(*X);
  pprim_ = std::make_shared<Matrix>(0, X->SizeColumns(), 0.0f);
  tprim_ = std::make_shared<Matrix>(0, X->SizeRows(), 0.0f);
  max_iterations_ = maxIterations;
}

NCPCA::NCPCA(const Matrix* residuals, const Matrix* Pprim, const Matrix* Tprim, int maxIterations) {
  if (!residuals || !Pprim || !Tprim) Fail("NCPCA", "null model part");
  if (maxIterations < 1)
    Fail("NCPCA", "maximum of iterations " + std::to_string(maxIterations) + ", at least 1 needed");
  if (Pprim->SizeRows() != Tprim->SizeRows() ||
      (Pprim->SizeRows() > 0 && (Pprim->SizeColumns() != residuals->SizeColumns() ||
                                 Tprim->SizeColumns() != residuals->SizeRows())))
    Fail("NCPCA", "loadings of " + Shape(*Pprim) + " and scores of " + Shape(*Tprim) +
                      " for residuals of " + Shape(*residuals));
  residuals_ = std::make_shared<Matrix>();
  pprim_ = std::make_shared<Matrix>();
  tprim_ = std::make_shared<Matrix>();
  residuals_->CopyContent(*residuals);
  pprim_->CopyContent(*Pprim);
  tprim_->CopyContent(*Tprim);
  components_ = Pprim->SizeRows();
  max_iterations_ = maxIterations;
}

NCPCA::NCPCA(const NCPCA& other)
    : UStreamBase(other),
      pprim_(other.pprim_),
      tprim_(other.tprim_),
      residuals_(other.residuals_),
      components_(other.components_),
      max_iterations_(other.max_iterations_),
      iterations_(other.iterations_) {}

NCPCA& NCPCA::operator=(const NCPCA& other) {
  UStreamBase::operator=(other);
  pprim_ = other.pprim_;
  tprim_ = other.tprim_;
  residuals_ = other.residuals_;
  components_ = other.components_;
  max_iterations_ = other.max_iterations_;
  iterations_ = other.iterations_;
  return *this;
}

NCPCA::~NCPCA() = default;

// ---------------------------------------------------------------------------------------------
// NIPALS

bool NCPCA::NextComponent(NCProgress* progress, const GroupVector* groups, int group,
                          const Vector* start) {
  const Matrix& E = *residuals_;
  const int rows = E.SizeRows(), cols = E.SizeColumns();
  if (rows == 0 || cols == 0) Fail("NextComponent", "no data in residuals of " + Shape(E));
  if (max_iterations_ < 1)
    Fail("NextComponent",
         "maximum of iterations " + std::to_string(max_iterations_) + ", at least 1 needed");
  if (start && start->Size() != rows)
    Fail("NextComponent", "start vector of length " + std::to_string(start->Size()) + " for " +
                              std::to_string(rows) + " observations");
  if (groups && groups->Size() < cols)
    Fail("NextComponent", "variable groups of length " + std::to_string(groups->Size()) + " for " +
                              std::to_string(cols) + " variables");

  const int a = ++components_;
  iterations_ = 0;
  Vector p, t;
  if (rows == 1) {
    p.CopyContent(E[1]);
    ExcludeVariables(p, groups, group);
    const long double length = p.Normalise();
    t = Vector(1, static_cast<float>(length));
    iterations_ = 1;
  } else {
    // NIPALS (Wold): alternate the two masked regressions until the scores stop changing.
    p = Vector(cols, kMis);
    if (start) {
      t.CopyContent(*start);
    } else {
      E.Result(&t).GetNIPALSStartColumn();
    }
    Vector previous;
    std::shared_ptr<NCProgress> own;  // the call's own reporter, when the host gave none
    NCProgress* reporter = progress;
    int count = 0;
    for (;;) {
      previous.CopyContent(t);
      E.Result(&p).SpecialNipalsRegressColumnsFix(t);
      ExcludeVariables(p, groups, group);
      p.Normalise();
      E.Result(&t).SpecialNipalsRegressRowsFix(p, groups, group);
      const double d = static_cast<double>(t.Difference(previous));
      if (d == mvda::kMissing) throw NCError("PCA component could not be computed.");
      const double c = ConvergenceMeasure(d);
      ++count;
      if (count == 1) {
        if (reporter) {
          reporter->SetRange(-c, 0.0);
        } else {
          own = NCProgress::CreateDefault(LanguageString::Format(10041, a), -c, 0.0);
          reporter = own.get();
        }
      } else if (reporter && !reporter->SetValue(-c)) {
        throw NCError(LanguageString::Get(10147), NCError::kStopRequested);
      }
      if (c <= 0 || count >= max_iterations_) break;
    }
    iterations_ = count;
  }
  pprim_->InsertRow(a, p);
  tprim_->InsertRow(a, t);
  return true;
}

void NCPCA::CalculateResiduals() {
  if (pprim_->SizeRows() == 0 || tprim_->SizeRows() == 0)
    Fail("CalculateResiduals", "the model has no component");
  residuals_->TransformToSub_V_x_Vt(tprim_->back(), pprim_->back());
}
