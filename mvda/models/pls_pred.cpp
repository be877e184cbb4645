// NCPLSPred: PLS prediction of Y, component by component.
#include <mvda/models/pls_pred.h>
#include <mvda/platform/error.h>

#include <string>
#include <utility>

namespace {

using Matrix = NCPLSPred::Matrix;

const Matrix& Deref(const Matrix* m, const char* name) {
  if (!m) throw NCError(std::string("NCPLSPred::NCPLSPred: ") + name + " is null");
  return *m;
}

// X's own copy for the owning forms; it shares the caller's rows until deflation writes them.
std::shared_ptr<Matrix> CopyOfX(const Matrix* x) { return std::make_shared<Matrix>(Deref(x, "X")); }

}  // namespace

NCPLSPred::NCPLSPred(const Matrix* x, const Matrix* wprim, const Matrix* pprim, const Matrix* cprim,
                     float missingTolerance)
    : NCPLSPred(CopyOfX(x), nullptr, nullptr, Deref(wprim, "Wprim"), Deref(pprim, "Pprim"),
                Deref(cprim, "Cprim"), missingTolerance) {}

NCPLSPred::NCPLSPred(const Matrix& x, const Matrix& wprim, const Matrix& pprim, const Matrix& cprim,
                     float missingTolerance)
    : NCPLSPred(CopyOfX(&x), nullptr, nullptr, wprim, pprim, cprim, missingTolerance) {}

NCPLSPred::NCPLSPred(bool, Matrix* x, Matrix* yPred, const Matrix& wprim, const Matrix& pprim,
                     const Matrix& cprim, float missingTolerance)
    : NCPLSPred(nullptr, x, yPred, wprim, pprim, cprim, missingTolerance) {}

NCPLSPred::NCPLSPred(std::shared_ptr<Matrix> ownedX, Matrix* x, Matrix* yPred, const Matrix& wprim,
                     const Matrix& pprim, const Matrix& cprim, float missingTolerance)
    : NCPLSResiduals(ownedX ? ownedX.get() : x, wprim, pprim, missingTolerance),
      owned_x_(std::move(ownedX)),
      y_pred_(yPred),
      y_weights_(cprim),
      owns_(owned_x_ != nullptr) {
  if (cprim.SizeRows() != wprim.SizeRows())
    throw NCError("NCPLSPred::NCPLSPred: Cprim has " + std::to_string(cprim.SizeRows()) +
                  " rows but Wprim has " + std::to_string(wprim.SizeRows()));
  if (!owns_ && !yPred) throw NCError("NCPLSPred::NCPLSPred: the Y prediction is null");
  Matrix zeros(GetX()->SizeRows(), cprim.SizeColumns(), 0.0f);
  if (owns_) {
    owned_y_pred_ = std::make_shared<Matrix>(std::move(zeros));
    y_pred_ = owned_y_pred_.get();
  } else {
    y_pred_->swap(zeros);
  }
}

NCPLSPred::NCPLSPred(const NCPLSPred& other) = default;
NCPLSPred& NCPLSPred::operator=(const NCPLSPred& other) = default;
NCPLSPred::~NCPLSPred() = default;

void NCPLSPred::CalcNextComponent() {
  Matrix& yPred = *y_pred_;
  if (GetCompComputed() < GetMaxComp() &&
      (yPred.SizeRows() != Size() || yPred.SizeColumns() != y_weights_.SizeColumns()))
    throw NCError("NCPLSPred::CalcNextComponent: the Y prediction is " +
                  std::to_string(yPred.SizeRows()) + " x " + std::to_string(yPred.SizeColumns()) +
                  " but was " + std::to_string(Size()) + " x " +
                  std::to_string(y_weights_.SizeColumns()) + " when the object was made");
  ApplyNextComponent("NCPLSPred::CalcNextComponent");
  yPred.AddVprimV(*this, y_weights_[GetCompComputed()], 1.0f);
}
