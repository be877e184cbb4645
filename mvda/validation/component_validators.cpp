// The component validators: the abstract rule object, the PCA one and its residual sum-of-squares
// rule.
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/validation/component_validators.h>

#include <cmath>

NCComponentValidator::~NCComponentValidator() = default;

void NCComponentValidator::Done() {}

PCAComponentValidator::~PCAComponentValidator() = default;

void PCAComponentValidator::SetPCAModel(NCPCA* model) { model_ = model; }

PCA_SS_ComponentValidator::PCA_SS_ComponentValidator(NCPCA* model, float limit)
    : PCAComponentValidator(nullptr), limit_(limit) {
  PCA_SS_ComponentValidator::SetPCAModel(model);
}

PCA_SS_ComponentValidator::PCA_SS_ComponentValidator(const PCA_SS_ComponentValidator& other) =
    default;
PCA_SS_ComponentValidator& PCA_SS_ComponentValidator::operator=(
    const PCA_SS_ComponentValidator& other) = default;
PCA_SS_ComponentValidator::~PCA_SS_ComponentValidator() = default;

void PCA_SS_ComponentValidator::SetPCAModel(NCPCA* model) {
  if (!model) throw NCError("PCA_SS_ComponentValidator::SetPCAModel: null model");
  const long double ss = model->GetResiduals()->GetSS();
  const float reference = static_cast<float>(ss);
  if (!std::isfinite(reference)) throw NCError(LanguageString::Get(10374));
  PCAComponentValidator::SetPCAModel(model);
  reference_ = reference;
}

bool PCA_SS_ComponentValidator::IsValid() {
  if (!model_) return false;
  const long double now = model_->GetResiduals()->GetSS();
  if (reference_ == -99.0f || now == -99.0L || reference_ <= 1e-30f) return false;
  const float ratio = static_cast<float>(now) / reference_;
  return ratio > limit_;  // false for NaN
}
