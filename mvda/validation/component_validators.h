// NCComponentValidator, PCAComponentValidator and PCA_SS_ComponentValidator: rule objects that
// decide whether computing a further component of a model is worth it.
#ifndef MVDA_VALIDATION_COMPONENT_VALIDATORS_H_
#define MVDA_VALIDATION_COMPONENT_VALIDATORS_H_

#include <mvda/models/pca.h>
#include <mvda/mvda_export.h>

// The host keeps a list of validators and asks each one in turn. A pre-component validator is
// asked before a component is computed (is there anything worth fitting?), the others after it
// (is the new component worth keeping?). Done() tells a validator that the fitting has ended.
class MVDA_EXPORT NCComponentValidator {
 public:
  virtual ~NCComponentValidator();
  virtual bool IsPreComponentValidator() = 0;
  virtual bool IsValid() = 0;
  virtual void Done();  // nothing to release by default

 protected:
  NCComponentValidator() = default;
  NCComponentValidator(const NCComponentValidator&) = default;
  NCComponentValidator& operator=(const NCComponentValidator&) = default;
};

// A validator that judges a PCA model. It keeps a pointer to the model, not owned: the model must
// outlive the validator or be replaced through SetPCAModel.
class MVDA_EXPORT PCAComponentValidator : public NCComponentValidator {
 public:
  ~PCAComponentValidator() override;
  virtual void SetPCAModel(NCPCA* model);  // stores the pointer
  NCPCA* GetPCAModel() const { return model_; }

 protected:
  explicit PCAComponentValidator(NCPCA* model) : model_(model) {}
  PCAComponentValidator(const PCAComponentValidator&) = default;
  PCAComponentValidator& operator=(const PCAComponentValidator&) = default;

  NCPCA* model_ = nullptr;
};

// Allows a further component while more than `limit` of the residual sum of squares the model
// had when it was set is left: IsValid() is true exactly when now / reference > limit, with now
// the sum of squares of the model's current residuals (NCDataMatrix::GetSS, present elements).
// It is false, whatever the limit, when either sum is -99 (no present element), when the
// reference is at most 1e-30 (nothing to explain from the start) or when the ratio is NaN. A
// limit of 0.01 thus stops once 99% of the sum of squares is explained.
class MVDA_EXPORT PCA_SS_ComponentValidator : public PCAComponentValidator {
 public:
  // Sets the model as SetPCAModel does.
  PCA_SS_ComponentValidator(NCPCA* model, float limit);
  PCA_SS_ComponentValidator(const PCA_SS_ComponentValidator& other);
  PCA_SS_ComponentValidator& operator=(const PCA_SS_ComponentValidator& other);
  ~PCA_SS_ComponentValidator() override;

  bool IsPreComponentValidator() override { return true; }
  bool IsValid() override;
  // Stores the model and takes its current residual sum of squares as the reference. NCError,
  // with the validator unchanged, for a null model, and with the text of language string 10374
  // when the sum is not finite (an infinity or NaN in the data would make every ratio
  // meaningless).
  void SetPCAModel(NCPCA* model) override;

  float GetLimit() const { return limit_; }
  float GetReference() const { return reference_; }

 private:
  float limit_ = 0;
  float reference_ = -99;
};

#endif  // MVDA_VALIDATION_COMPONENT_VALIDATORS_H_
