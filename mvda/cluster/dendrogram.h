// DendroGram::DendroGramNode, the two-way tree that a cluster analysis produces, with its
// reorderings, x offsets and stream record "Dendro"; DendroGram::GetDendroGram, which clusters the
// rows of a matrix into such a tree, and DendroGram::CreateMergeData, which lists its merges.
#ifndef MVDA_CLUSTER_DENDROGRAM_H_
#define MVDA_CLUSTER_DENDROGRAM_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream.h>

#include <cstdint>
#include <iosfwd>
#include <list>
#include <string>
#include <vector>

class NCProgress;
class TwStreamSource;

namespace DendroGram {

class ClusterDistanceCalculator;

// A node of a dendrogram: a leaf stands for rows of the clustered matrix (one row, for a tree made
// by GetDendroGram), an inner node for the merge of its two children at Height(). Inner nodes own
// their children; a tree is owned through its root and freed with Destroy() (the destructor is
// private, so nodes live on the heap only). Every operation on a whole tree walks it with an
// explicit stack, never by recursion, so trees as deep as they are wide (single linkage on points
// on a line) are as safe as balanced ones; the destructor and the copy constructor too.
//
// The x offset is the node's horizontal position for drawing, as a fraction of the width of its
// own subtree: 0.5 for a leaf; for an inner node over n leaves, nL of them on the left,
// x = 0.5 * ((nL/n) * xL + (nR * xR + nL) / n), midway between the children's positions with the
// left child drawn in the first nL/n of the width. Reorderings keep every x offset up to date.
//
// Stream record "Dendro", version 1: the record, the bare UStreamBase part, then a directory of one
// entry holding the nodes in pre-order (node, left subtree, right subtree), each as
//   u8 1 for a leaf, 0 for an inner node; f32 x offset;
//   inner: f32 height, u32 leaf count;  leaf: u32 item count n, n x u32 rows;
//   i32 model tag.
// No links are stored: reading rebuilds the tree from the order and sets the parent links. A read
// fails (false, the node left an empty leaf) on a truncated or corrupt stream, on a flag other
// than 0 or 1, and when an inner node's leaf count is not the sum of its children's; it never
// allocates for items that the stream does not hold.
//
// Thread-safety: one tree is used by one thread at a time (reorderings change it in place).
class MVDA_EXPORT DendroGramNode : public UStreamBase {
 public:
  static UStreamableData MyStreamableData;  // "Dendro", version 1
  static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
  static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }

  // An empty leaf (no items).
  DendroGramNode();
  // A leaf holding one row; rows are 1-based, so row < 1 throws NCError.
  explicit DendroGramNode(int row);
  // An inner node that takes ownership of both children and becomes their parent. Throws NCError,
  // owning nothing, when a child is null, both are the same node, or a child already has a parent.
  DendroGramNode(float height, DendroGramNode* left, DendroGramNode* right);
  // A deep copy of other's subtree, as a new root.
  DendroGramNode(const DendroGramNode& other);
  // Replaces this node's subtree by a deep copy of other's; the node keeps its place (parent).
  DendroGramNode& operator=(const DendroGramNode& other);
  // Exchanges the two subtrees; each node keeps its place. The x offsets of the ancestors are not
  // recomputed (swap two roots, or call SwapLeftAndRigth on the parents afterwards).
  void swap(DendroGramNode& other) noexcept;

  // Deletes this node and its whole subtree. Meant for a root; a node inside a tree is first
  // unhooked from its parent, which is left with a null child.
  void Destroy();
  static void DestroyNode(DendroGramNode* node) {
    if (node) node->Destroy();
  }

  // --- Queries
  bool IsLeaf() const { return is_leaf_; }
  DendroGramNode* GetLeft() { return left_; }
  const DendroGramNode* GetLeft() const { return left_; }
  DendroGramNode* GetRight() { return right_; }
  const DendroGramNode* GetRight() const { return right_; }
  const DendroGramNode* GetParent() const { return parent_; }
  float Height() const { return is_leaf_ ? 0.0f : height_; }  // 0 for a leaf
  float GetXOffset() const { return x_offset_; }
  unsigned SizeLeafs() const { return is_leaf_ ? 1u : leaf_count_; }
  unsigned SizeItems() const { return is_leaf_ ? static_cast<unsigned>(items_.size()) : 0u; }
  const std::vector<std::uint32_t>* Items() const { return is_leaf_ ? &items_ : nullptr; }
  int GetModel() const { return model_; }
  void SetModel(int model) { model_ = model; }
  // Whether `node` lies in this node's subtree; a node counts as a subnode of itself.
  bool IsSubNode(const DendroGramNode* node) const;
  // Appends the rows of the leaves, left to right.
  void GetLeafs(std::list<int>& rows) const;
  // Appends every node of the subtree in pre-order (node, left subtree, right subtree).
  void GetNodes(std::list<const DendroGramNode*>& nodes) const;
  // Appends, left to right, the clusters of a cut at `height`: the topmost nodes of the subtree
  // that are leaves or whose Height() is at most `height`.
  void GetNodes(std::list<const DendroGramNode*>& nodes, float height) const;
  // Same shape, leaf flags and items, heights, leaf counts, x offsets and model tags.
  bool operator==(const DendroGramNode& other) const;
  bool operator!=(const DendroGramNode& other) const { return !(*this == other); }

  // --- Reordering: changes the drawing order only (the leaf sets and heights below every node
  // stay), so these work on a tree held through a const pointer too. Each applies its rule to
  // every inner node of the subtree; ties leave the order as it is. The x offsets of the subtree
  // and of all its ancestors are brought up to date.
  void SortBySize() const;    // the child with fewer leaves to the left
  void SortByHeight() const;  // the lower child to the left
  void SortByIndex() const;   // the child holding the smaller smallest row to the left
  void MirrorImage() const;   // every node swapped
  // Exchanges the children of this node (a leaf is left alone) and recomputes the x offsets of the
  // node and of every ancestor.
  void SwapLeftAndRigth() const;

  // Divides every height in the subtree by this node's height, so that it becomes 1. Nothing
  // happens for a leaf or when the height is 0 or not finite (nothing to scale by).
  void Normalise();

  // Cuts the tree at `height` (as GetNodes with a height) and groups the given rows by the
  // cluster that holds them: one list per cluster that holds any of them, clusters left to right,
  // rows in the order given (a repeated row once). A row that no leaf holds throws NCError
  // "Internal error in DendroGramNode::Split".
  std::vector<std::list<int>> Split(const std::list<int>& rows, float height) const;

  // Points the children of every inner node in `nodes` back at it (their parent links), for
  // nodes whose links were changed by hand; the nodes are not otherwise touched.
  static void ReLink(std::list<const DendroGramNode*>& nodes);

  // --- Streaming (see above); meant for a root.
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableRead(std::istream& is) override;
  bool UStreamableWriteBases(std::ostream& os) const override;
  bool UStreamableReadBases(std::istream& is) override;
  void UStreamableReset() const override;

 private:
  ~DendroGramNode() override;

  // One node's record alone; DeSerialize reads the flag first and fills this node's own fields.
  bool Serialize(std::ostream& os) const;
  bool DeSerialize(std::istream& is);
  // Deletes the subtrees below this node, without recursion and without allocating.
  void DeleteChildren() noexcept;
  // This node becomes an empty leaf.
  void MakeEmptyLeaf() noexcept;
  // Copies other's own fields, not its links.
  void CopyFields(const DendroGramNode& other);
  void SetXOffset() const;
  // Applies `swap_if` to every inner node in pre-order, then brings the x offsets up to date.
  template <class Rule>
  void Reorder(Rule swap_if) const;
  // The subtree in pre-order.
  std::vector<const DendroGramNode*> PreOrder() const;
  void UpdateAncestorOffsets() const;

  bool is_leaf_ = true;
  std::vector<std::uint32_t> items_;
  // Reorderings exchange children and move x offsets on const trees (see above).
  mutable DendroGramNode* left_ = nullptr;
  mutable DendroGramNode* right_ = nullptr;
  float height_ = -0.5f;
  std::uint32_t leaf_count_ = 1;
  mutable float x_offset_ = 0.5f;
  DendroGramNode* parent_ = nullptr;
  int model_ = 0;
};

// The admission error of one row or a pair of rows: what() is the host's text, unchanged; Row and
// OtherRow (1-based rows of the matrix; 0 when there is no second one) and Problem (what is wrong,
// in words that name no row) let a tool name the observation the way its user knows it.
class MVDA_EXPORT ClusterRowError : public NCError {
 public:
  ClusterRowError(const std::string& message, int row, int other_row, std::string problem);
  ClusterRowError(const ClusterRowError&) = default;
  ClusterRowError& operator=(const ClusterRowError&) = default;
  ~ClusterRowError() override;
  int Row() const { return row_; }
  int OtherRow() const { return other_row_; }
  const std::string& Problem() const { return problem_; }

 private:
  int row_;
  int other_row_;
  std::string problem_;
};

// Clusters the rows of `data` with `calc` (Ward or single linkage) and returns the root of the
// tree, which the caller owns and frees with Destroy(). One leaf per row; each inner node's height
// is the distance at which its children were merged; SortBySize has been applied. `progress` and
// `cache` may be null. With a cache, a tree stored under the name of the same data and calculator
// settings is read and returned instead of computed, and a computed tree is stored; a stored tree
// that cannot be read, or does not fit the data, is computed again.
//
// The data must have at least one row and one column, finite values only, and -99 for missing
// values; a matrix with missing values must pass the admission check (no row more than half
// missing, every two rows sharing at least sqrt(columns) present columns). Throws ClusterRowError
// with the host's texts for these, "Cluster analysis aborted." for a stop from the progress
// reporter, and the calculator's errors (memory, temporary files).
MVDA_EXPORT DendroGramNode* GetDendroGram(const NCDataMatrix<float>& data,
                                          ClusterDistanceCalculator& calc, NCProgress* progress,
                                          TwStreamSource* cache);

// Lists the merges of a tree, one entry per inner node: heights[k] is the height of merge k, and
// merge k joined the clusters clusterA[k] (its left child) and clusterB[k] (its right child) into
// merged[k]. Clusters are numbered as in most statistics packages: a leaf by its row (its first
// item; 0, the missing code, for an empty leaf), and merge k makes cluster R + k, R being the
// largest row in the tree. Merges are listed by increasing height, each after the merges that made
// its children (a tree whose heights fall from a node to a child keeps that order); equal heights
// keep the left-to-right order. heights is resized to the number of merges and filled with -99
// before it is written. When given, membersA[k] and membersB[k] receive the rows of the two
// clusters (ascending): this costs memory in proportion to the sum of all cluster sizes, which for
// a chain-shaped tree grows with the square of the rows. membersA and membersB must both be given
// or both be null; otherwise NCError "Internal error in DendroGram::CreateMergeData".
MVDA_EXPORT void CreateMergeData(const DendroGramNode& root, NCDataVector<float>& heights,
                                 NCIntegralVector<unsigned long, 0>& clusterA,
                                 NCIntegralVector<unsigned long, 0>& clusterB,
                                 NCIntegralVector<unsigned long, 0>& merged,
                                 std::vector<std::vector<unsigned long>>* membersA,
                                 std::vector<std::vector<unsigned long>>* membersB);

}  // namespace DendroGram

#endif  // MVDA_CLUSTER_DENDROGRAM_H_
