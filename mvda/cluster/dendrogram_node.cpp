// DendroGramNode: construction, copying, destruction, queries, reorderings and cuts. Streaming is
// in dendrogram_stream.cpp.
#include <mvda/cluster/dendrogram.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <unordered_map>
#include <utility>

namespace DendroGram {
namespace {

float XOffsetOf(std::uint32_t nl, float xl, std::uint32_t nr, float xr) {
  const double n = double(nl) + double(nr);
  return static_cast<float>(0.5 * (nl / n * xl + (nr * double(xr) + nl) / n));
}

}  // namespace

DendroGramNode::DendroGramNode() = default;

DendroGramNode::DendroGramNode(int row) {
  if (row < 1) throw NCError("DendroGramNode: row " + std::to_string(row) + " is not a row number");
  items_.push_back(static_cast<std::uint32_t>(row));
}

DendroGramNode::DendroGramNode(float height, DendroGramNode* left, DendroGramNode* right) {
  if (!left || !right) throw NCError("DendroGramNode: an inner node needs two children");
  if (left == right) throw NCError("DendroGramNode: both children are the same node");
  if (left->parent_ || right->parent_)
    throw NCError("DendroGramNode: a child already has a parent");
  is_leaf_ = false;
  height_ = height;
  left_ = left;
  right_ = right;
  left->parent_ = this;
  right->parent_ = this;
  leaf_count_ = left->SizeLeafs() + right->SizeLeafs();
  SetXOffset();
}

DendroGramNode::DendroGramNode(const DendroGramNode& other) : UStreamBase(other) {
  CopyFields(other);
  if (other.is_leaf_) return;
  // Pre-order over both trees at once: each pair holds a source node and its copy, whose children
  // are still to be made.
  std::vector<std::pair<const DendroGramNode*, DendroGramNode*>> pending{{&other, this}};
  try {
    while (!pending.empty()) {
      const auto [source, copy] = pending.back();
      pending.pop_back();
      if (source->is_leaf_) continue;
      // Each child is linked before its fields are copied, so a failed copy leaves nothing that
      // DeleteChildren cannot reach.
      copy->left_ = new DendroGramNode();
      copy->left_->parent_ = copy;
      copy->left_->CopyFields(*source->left_);
      copy->right_ = new DendroGramNode();
      copy->right_->parent_ = copy;
      copy->right_->CopyFields(*source->right_);
      pending.push_back({source->right_, copy->right_});
      pending.push_back({source->left_, copy->left_});
    }
  } catch (...) {
    DeleteChildren();  // the destructor does not run for a constructor that throws
    throw;
  }
}

DendroGramNode& DendroGramNode::operator=(const DendroGramNode& other) {
  DendroGramNode* copy = new DendroGramNode(other);
  swap(*copy);
  copy->Destroy();
  return *this;
}

void DendroGramNode::swap(DendroGramNode& other) noexcept {
  std::swap(is_leaf_, other.is_leaf_);
  items_.swap(other.items_);
  std::swap(left_, other.left_);
  std::swap(right_, other.right_);
  std::swap(height_, other.height_);
  std::swap(leaf_count_, other.leaf_count_);
  std::swap(x_offset_, other.x_offset_);
  std::swap(model_, other.model_);
  for (DendroGramNode* node : {this, &other}) {
    if (node->left_) node->left_->parent_ = node;
    if (node->right_) node->right_->parent_ = node;
  }
}

DendroGramNode::~DendroGramNode() { DeleteChildren(); }

void DendroGramNode::Destroy() {
  if (parent_) {
    if (parent_->left_ == this) parent_->left_ = nullptr;
    if (parent_->right_ == this) parent_->right_ = nullptr;
    parent_ = nullptr;
  }
  delete this;
}

void DendroGramNode::DeleteChildren() noexcept {
  // Deletes each subtree by right rotations: while the current node has a left child, that child
  // is rotated above it; a node without a left child is deleted and its right child is next. Each
  // node is deleted with no children, so no destructor recurses, and no memory is needed.
  for (DendroGramNode* current : {left_, right_}) {
    while (current) {
      if (DendroGramNode* left = current->left_) {
        current->left_ = left->right_;
        left->right_ = current;
        current = left;
      } else {
        DendroGramNode* next = current->right_;
        current->right_ = nullptr;
        delete current;
        current = next;
      }
    }
  }
  left_ = right_ = nullptr;
}

void DendroGramNode::MakeEmptyLeaf() noexcept {
  DeleteChildren();
  is_leaf_ = true;
  items_.clear();
  height_ = -0.5f;
  leaf_count_ = 1;
  x_offset_ = 0.5f;
  model_ = 0;
}

void DendroGramNode::CopyFields(const DendroGramNode& other) {
  items_ = other.items_;
  is_leaf_ = other.is_leaf_;
  height_ = other.height_;
  leaf_count_ = other.leaf_count_;
  x_offset_ = other.x_offset_;
  model_ = other.model_;
}

void DendroGramNode::SetXOffset() const {
  if (is_leaf_) return;
  x_offset_ =
      XOffsetOf(left_->SizeLeafs(), left_->x_offset_, right_->SizeLeafs(), right_->x_offset_);
}

// ---------------------------------------------------------------------------------------------
// Walks

std::vector<const DendroGramNode*> DendroGramNode::PreOrder() const {
  std::vector<const DendroGramNode*> order;
  order.reserve(2 * std::size_t(SizeLeafs()) - 1);
  std::vector<const DendroGramNode*> pending;  // right children still to visit
  pending.reserve(SizeLeafs() - 1);
  const DendroGramNode* node = this;
  while (node) {
    order.push_back(node);
    if (node->right_) pending.push_back(node->right_);
    if (node->left_) {
      node = node->left_;
    } else if (!pending.empty()) {
      node = pending.back();
      pending.pop_back();
    } else {
      node = nullptr;
    }
  }
  return order;
}

template <class Rule>
void DendroGramNode::Reorder(Rule swap_if) const {
  // The list is the pre-order of the tree before any change; a node's decision depends only on
  // its children's subtrees, which reordering inside them does not alter.
  const std::vector<const DendroGramNode*> order = PreOrder();
  for (const DendroGramNode* node : order)
    if (!node->is_leaf_ && swap_if(*node)) std::swap(node->left_, node->right_);
  // Children follow their parent in the list whatever was swapped, so from the back every node's
  // children are up to date before the node itself: one pass instead of a walk up per swap.
  for (auto it = order.rbegin(); it != order.rend(); ++it) (*it)->SetXOffset();
  UpdateAncestorOffsets();
}

void DendroGramNode::UpdateAncestorOffsets() const {
  for (DendroGramNode* node = parent_; node; node = node->parent_) node->SetXOffset();
}

void DendroGramNode::SortBySize() const {
  Reorder([](const DendroGramNode& n) { return n.left_->SizeLeafs() > n.right_->SizeLeafs(); });
}

void DendroGramNode::SortByHeight() const {
  Reorder([](const DendroGramNode& n) { return n.right_->Height() < n.left_->Height(); });
}

void DendroGramNode::SortByIndex() const {
  // The smallest row of every subtree, from the leaves up, before anything moves (the subtrees'
  // row sets do not change). An empty leaf holds no row and never wins.
  const std::vector<const DendroGramNode*> order = PreOrder();
  std::unordered_map<const DendroGramNode*, std::uint32_t> smallest;
  smallest.reserve(order.size());
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    const DendroGramNode* n = *it;
    std::uint32_t m = std::numeric_limits<std::uint32_t>::max();
    if (n->is_leaf_) {
      for (const std::uint32_t row : n->items_) m = std::min(m, row);
    } else {
      m = std::min(smallest[n->left_], smallest[n->right_]);
    }
    smallest[n] = m;
  }
  Reorder([&](const DendroGramNode& n) { return smallest[n.left_] > smallest[n.right_]; });
}

void DendroGramNode::MirrorImage() const {
  Reorder([](const DendroGramNode&) { return true; });
}

void DendroGramNode::SwapLeftAndRigth() const {
  if (is_leaf_) return;
  std::swap(left_, right_);
  SetXOffset();
  UpdateAncestorOffsets();
}

void DendroGramNode::Normalise() {
  const float scale = Height();
  if (is_leaf_ || scale == 0.0f || !std::isfinite(scale)) return;
  for (const DendroGramNode* node : PreOrder())
    if (!node->is_leaf_) const_cast<DendroGramNode*>(node)->height_ /= scale;
}

// ---------------------------------------------------------------------------------------------
// Queries

bool DendroGramNode::IsSubNode(const DendroGramNode* node) const {
  for (; node; node = node->parent_)
    if (node == this) return true;
  return false;
}

void DendroGramNode::GetLeafs(std::list<int>& rows) const {
  for (const DendroGramNode* node : PreOrder())
    for (const std::uint32_t row : node->items_) rows.push_back(static_cast<int>(row));
}

void DendroGramNode::GetNodes(std::list<const DendroGramNode*>& nodes) const {
  for (const DendroGramNode* node : PreOrder()) nodes.push_back(node);
}

void DendroGramNode::GetNodes(std::list<const DendroGramNode*>& nodes, float height) const {
  // Pre-order that does not descend into a node low enough to be a cluster of its own.
  std::vector<const DendroGramNode*> pending{this};
  while (!pending.empty()) {
    const DendroGramNode* node = pending.back();
    pending.pop_back();
    if (node->is_leaf_ || node->height_ <= height) {
      nodes.push_back(node);
    } else {
      pending.push_back(node->right_);
      pending.push_back(node->left_);
    }
  }
}

bool DendroGramNode::operator==(const DendroGramNode& other) const {
  std::vector<std::pair<const DendroGramNode*, const DendroGramNode*>> pending{{this, &other}};
  while (!pending.empty()) {
    const auto [a, b] = pending.back();
    pending.pop_back();
    if (a->is_leaf_ != b->is_leaf_ || a->Height() != b->Height() ||
        a->SizeLeafs() != b->SizeLeafs() || a->x_offset_ != b->x_offset_ || a->model_ != b->model_)
      return false;
    if (a->is_leaf_) {
      if (a->items_ != b->items_) return false;
      continue;
    }
    pending.push_back({a->right_, b->right_});
    pending.push_back({a->left_, b->left_});
  }
  return true;
}

std::vector<std::list<int>> DendroGramNode::Split(const std::list<int>& rows, float height) const {
  std::list<const DendroGramNode*> clusters;
  GetNodes(clusters, height);
  std::unordered_map<std::uint32_t, std::size_t> cluster_of;
  std::size_t index = 0;
  for (const DendroGramNode* cluster : clusters) {
    for (const DendroGramNode* node : cluster->PreOrder())
      for (const std::uint32_t row : node->items_) cluster_of.emplace(row, index);
    ++index;
  }
  std::vector<std::list<int>> groups(clusters.size());
  std::unordered_map<int, bool> seen;
  for (const int row : rows) {
    const auto found =
        row >= 1 ? cluster_of.find(static_cast<std::uint32_t>(row)) : cluster_of.end();
    if (found == cluster_of.end()) throw NCError("Internal error in DendroGramNode::Split");
    if (!seen.emplace(row, true).second) continue;
    groups[found->second].push_back(row);
  }
  groups.erase(std::remove_if(groups.begin(), groups.end(),
                              [](const std::list<int>& g) { return g.empty(); }),
               groups.end());
  return groups;
}

void DendroGramNode::ReLink(std::list<const DendroGramNode*>& nodes) {
  for (const DendroGramNode* node : nodes) {
    if (!node || node->is_leaf_) continue;
    auto* parent = const_cast<DendroGramNode*>(node);
    if (node->left_) node->left_->parent_ = parent;
    if (node->right_) node->right_->parent_ = parent;
  }
}

}  // namespace DendroGram
