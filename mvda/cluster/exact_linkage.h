// DendroGram::ExactLinkage and DendroGram::GetExactDendroGram: the textbook agglomerative
// linkages (Ward, average, complete, weighted by the nearest-neighbour chain, single by a minimum
// spanning tree) in memory linear in the data, beside the host-compatible calculators of
// distance_calculators.h, which GetDendroGram and its cache keep using.
#ifndef MVDA_CLUSTER_EXACT_LINKAGE_H_
#define MVDA_CLUSTER_EXACT_LINKAGE_H_

#include <mvda/cluster/dendrogram.h>
#include <mvda/containers/data_matrix.h>
#include <mvda/mvda_export.h>

#include <string>

class NCProgress;

namespace DendroGram {

// The merge criteria. The distance of two rows follows the library's missing-value rule: the
// squared Euclidean distance over the columns both rows have, scaled by columns / common columns
// (0 when they share none); Euclidean distance is its square root.
//
// kWard: merges the pair whose union raises the error sum of squares the least. The height stored
//   is sqrt(2 * increase), the unit of the common statistics packages (the Euclidean distance for
//   two single rows). For the same merge this is sqrt(2) times the height of
//   WardDistanceCalculator::kRootErrorSumOfSquares and sqrt(2 * h) for the height h of
//   kErrorSumOfSquares (on complete data; the host calculators also order merges differently).
//   With missing values the increase is the Lance-Williams Ward recurrence on the squared row
//   distances above, which on complete data is the same number.
// kAverage: the mean Euclidean distance between the rows of the two clusters (UPGMA).
// kComplete: the largest Euclidean distance between them.
// kWeighted: WPGMA, the mean of the two halves' distances at every merge (McQuitty).
// kSingle: the smallest Euclidean distance between them.
enum class ExactLinkage { kWard, kAverage, kComplete, kWeighted, kSingle };

// Clusters the rows of `data` and returns the root, which the caller owns and frees with
// Destroy(). One leaf per row; inner node heights as above, never below a child's (a rounding
// inversion is lifted to the child's height); SortBySize has been applied, as by GetDendroGram.
// The tree and the merge order do not depend on the thread count.
//
// Ward, average, complete and weighted follow the nearest-neighbour chain, which for these
// criteria gives the same tree as merging the closest pair each time, ties apart; single linkage
// sorts the edges of a minimum spanning tree grown by Prim's algorithm. No distance matrix is
// kept: distances are computed when needed from the rows, so memory is O(rows x columns).
// Time: single linkage and Ward on complete data (cluster centroids) take O(rows^2 x columns);
// average, complete, weighted and Ward with missing values compare clusters row by row, which
// costs the size of the cluster searched from times all rows per step: O(rows^2 x columns) for
// balanced trees, up to O(rows^3 x columns) when one cluster swallows the rows one by one.
//
// The data rules are GetDendroGram's: at least one row and one column, finite values, -99 for a
// missing value and the same admission check for matrices with missing values. Throws NCError for
// these, and "Cluster analysis aborted." for a stop from the progress reporter (may be null).
MVDA_EXPORT DendroGramNode* GetExactDendroGram(const NCDataMatrix<float>& data,
                                               ExactLinkage linkage, NCProgress* progress);

// The linkage of a name: "ward-exact", "average", "complete", "weighted" or "single-exact".
// Returns false for any other name.
MVDA_EXPORT bool ExactLinkageFromName(const std::string& name, ExactLinkage& linkage);

}  // namespace DendroGram

#endif  // MVDA_CLUSTER_EXACT_LINKAGE_H_
