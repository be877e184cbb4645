// The consistency test of the parts of a PLS model, shared by the rebuilding constructor and the
// stream reader of NCPLS.
#ifndef MVDA_MODELS_DETAIL_PLS_PARTS_H_
#define MVDA_MODELS_DETAIL_PLS_PARTS_H_

#include <mvda/containers/data_matrix.h>

#include <string>

namespace mvda::detail {

// Empty when the parts fit together, else what does not: the five "prim" matrices must have the
// same number of rows A, W and P the same width, the residuals the same number of rows, and, with
// components, the residual widths must match P and C and the residual rows the widths of T and U.
// Residuals without columns count as absent, so a model rebuilt from its loadings alone passes.
std::string CheckPlsParts(const NCDataMatrix<float>& xResiduals,
                          const NCDataMatrix<float>& yResiduals, const NCDataMatrix<float>& cprim,
                          const NCDataMatrix<float>& pprim, const NCDataMatrix<float>& wprim,
                          const NCDataMatrix<float>& uprim, const NCDataMatrix<float>& tprim);

}  // namespace mvda::detail

#endif  // MVDA_MODELS_DETAIL_PLS_PARTS_H_
