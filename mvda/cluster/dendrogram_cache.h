// The dendrogram cache's entries: a computed tree stored under a key of the data it was computed
// from, read back only when it is whole and belongs to that data.
#ifndef MVDA_CLUSTER_DENDROGRAM_CACHE_H_
#define MVDA_CLUSTER_DENDROGRAM_CACHE_H_

#include <mvda/cluster/dendrogram.h>
#include <mvda/containers/data_matrix.h>
#include <mvda/mvda_export.h>

#include <iosfwd>
#include <string>

namespace DendroGram {

// An entry is the line "MVDADendroCache 1", the key (32 hexadecimal digits), the MD5 of the tree's
// bytes (32 hexadecimal digits) and a line end, then the tree as DendroGramNode writes it. The key
// is the MD5 of the data's values and the calculator's settings, and also names the entry's file;
// storing it inside too means that an entry copied or renamed over another's name is refused.

// The key of `data` clustered with `calc`.
MVDA_EXPORT std::string DendroGramCacheKey(const NCDataMatrix<float>& data,
                                           const ClusterDistanceCalculator& calc);
// Writes `root` as the entry for `key`; false when the stream fails.
MVDA_EXPORT bool WriteDendroGramCacheEntry(const DendroGramNode& root, const std::string& key,
                                           std::ostream& os);
// The tree of an entry for `key` with one leaf per row 1..`rows`, which the caller frees with
// Destroy(); null for an entry that is truncated, damaged (its MD5 differs), of another version,
// for another key, larger than such a tree can be, or not a tree of `rows` leaves. Never throws
// for the entry's contents.
MVDA_EXPORT DendroGramNode* ReadDendroGramCacheEntry(std::istream& is, const std::string& key,
                                                     int rows);

}  // namespace DendroGram

#endif  // MVDA_CLUSTER_DENDROGRAM_CACHE_H_
