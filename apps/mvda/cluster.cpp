#include <mvda/cluster/dendrogram.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/cluster/exact_linkage.h>
#include <mvda/platform/stream_source.h>

#include <algorithm>
#include <list>
#include <map>
#include <memory>

#include "analysis.h"
#include "fit_common.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

std::unique_ptr<DendroGram::ClusterDistanceCalculator> Calculator(const std::string& method) {
  using DendroGram::WardDistanceCalculator;
  if (method == "ward") {
    return std::make_unique<WardDistanceCalculator>(WardDistanceCalculator::kErrorSumOfSquares);
  }
  if (method == "ward-sqrt") {
    return std::make_unique<WardDistanceCalculator>(WardDistanceCalculator::kRootErrorSumOfSquares);
  }
  if (method == "single") return std::make_unique<DendroGram::SingleLinkageDistanceCalculator>();
  throw ToolError("--method " + method +
                  ": expected ward, ward-sqrt, single, ward-exact, average, complete, weighted or "
                  "single-exact");
}

struct TreeDeleter {
  void operator()(DendroGram::DendroGramNode* root) const {
    DendroGram::DendroGramNode::DestroyNode(root);
  }
};

// Lays the tree out for drawing: leaves in slots 0..N-1 from left to right, every inner node
// midway between its children, children listed before their parents. Pre-order reversed puts
// every node after all of its descendants, without recursion (single linkage on a chain gives a
// tree as deep as it is wide).
void Layout(const DendroGram::DendroGramNode& root, ClusterResult& result) {
  std::list<const DendroGram::DendroGramNode*> pre_order;
  root.GetNodes(pre_order);
  std::map<const DendroGram::DendroGramNode*, int> index;
  for (auto it = pre_order.rbegin(); it != pre_order.rend(); ++it) {
    const DendroGram::DendroGramNode* node = *it;
    ClusterResult::Node out;
    if (node->IsLeaf()) {
      out.row = static_cast<int>((*node->Items())[0]) - 1;
      out.height = 0;
    } else {
      out.left = index.at(node->GetLeft());
      out.right = index.at(node->GetRight());
      out.height = node->Height();
    }
    index[node] = static_cast<int>(result.nodes.size());
    result.nodes.push_back(out);
  }
  // Leaf slots in drawing order, then inner nodes midway (children come first in the list).
  std::list<int> rows;
  root.GetLeafs(rows);
  std::vector<int> slot(result.data.row_names.size());
  int s = 0;
  for (const int row : rows) {
    result.leaf_order.push_back(row - 1);
    slot[static_cast<std::size_t>(row - 1)] = s++;
  }
  for (ClusterResult::Node& node : result.nodes) {
    if (node.left < 0) {
      node.x = slot[static_cast<std::size_t>(node.row)];
    } else {
      node.x = 0.5 * (result.nodes[static_cast<std::size_t>(node.left)].x +
                      result.nodes[static_cast<std::size_t>(node.right)].x);
    }
  }
}

// Numbers the clusters of a cut 1..cut from left to right.
void CutTree(ClusterResult& result) {
  const int n = static_cast<int>(result.data.row_names.size());
  if (result.cut < 1 || result.cut > n) {
    throw ToolError("--clusters " + std::to_string(result.cut) + ": between 1 and " +
                    std::to_string(n) + " clusters are possible");
  }
  const std::vector<int> tops = TopClusters(result, result.cut);
  result.membership.assign(static_cast<std::size_t>(n), 0);
  for (std::size_t c = 0; c < tops.size(); ++c) {
    std::vector<int> stack = {tops[c]};
    while (!stack.empty()) {
      const ClusterResult::Node& node = result.nodes[static_cast<std::size_t>(stack.back())];
      stack.pop_back();
      if (node.left < 0) {
        result.membership[static_cast<std::size_t>(node.row)] = static_cast<int>(c) + 1;
      } else {
        stack.push_back(node.left);
        stack.push_back(node.right);
      }
    }
  }
}

// "row <line> ('<name>')" of the matrix row `row` (1-based), as the user finds it in the file.
std::string RowInFile(const Dataset& data, int row) {
  const std::size_t i = static_cast<std::size_t>(row - 1);
  if (row < 1 || i >= data.row_names.size()) return "row " + std::to_string(row);
  const long line = i < data.row_lines.size() ? data.row_lines[i] : 0;
  return "row " + (line > 0 ? std::to_string(line) : "#" + std::to_string(row)) + " ('" +
         data.row_names[i] + "')";
}

}  // namespace

std::vector<int> TopClusters(const ClusterResult& result, int count) {
  const auto& nodes = result.nodes;
  std::vector<int> tops = {static_cast<int>(nodes.size()) - 1};  // the root is last
  while (static_cast<int>(tops.size()) < count) {
    // The highest merge still standing is the next to undo; leaves cannot be split.
    int best = -1;
    for (std::size_t t = 0; t < tops.size(); ++t) {
      const auto& node = nodes[static_cast<std::size_t>(tops[t])];
      if (node.left >= 0 &&
          (best < 0 ||
           node.height >
               nodes[static_cast<std::size_t>(tops[static_cast<std::size_t>(best)])].height)) {
        best = static_cast<int>(t);
      }
    }
    if (best < 0) break;
    const ClusterResult::Node node =
        nodes[static_cast<std::size_t>(tops[static_cast<std::size_t>(best)])];
    tops[static_cast<std::size_t>(best)] = node.left;
    tops.push_back(node.right);
  }
  std::sort(tops.begin(), tops.end(), [&](int a, int b) {
    return nodes[static_cast<std::size_t>(a)].x < nodes[static_cast<std::size_t>(b)].x;
  });
  return tops;
}

ClusterResult Cluster(Dataset data, const std::string& method, const std::string& scaling,
                      const std::string& cache_dir, int cut) {
  ClusterResult result;
  result.method = method;
  result.scaling = scaling;
  result.cut = cut;
  // The exact linkages keep no distance list and use no cache.
  DendroGram::ExactLinkage exact = DendroGram::ExactLinkage::kWard;
  const bool is_exact = DendroGram::ExactLinkageFromName(method, exact);
  auto calculator = is_exact ? nullptr : Calculator(method);
  Matrix x = data.x;
  FitScale(x, data.x_names, scaling, data.path);
  result.data = std::move(data);

  std::unique_ptr<TwFolderStreamSource> cache;
  if (!cache_dir.empty()) cache = std::make_unique<TwFolderStreamSource>(cache_dir);
  const auto progress = StepProgress("Clustering");
  std::unique_ptr<DendroGram::DendroGramNode, TreeDeleter> root;
  try {
    root.reset(is_exact ? DendroGram::GetExactDendroGram(x, exact, progress.get())
                        : DendroGram::GetDendroGram(x, *calculator, progress.get(), cache.get()));
  } catch (const DendroGram::ClusterRowError& e) {
    // The library counts rows of the matrix; the user looks for a line and a name in the file.
    std::string where = RowInFile(result.data, e.Row());
    if (e.OtherRow() > 0) where += " and " + RowInFile(result.data, e.OtherRow());
    throw ToolError(result.data.path + ": " + where + ": " + e.Problem());
  }
  ThrowIfStopped();
  // The distances (in memory or a segment of them for the disk) are done with: what follows
  // needs room when memory was short enough for the list to go to the disk.
  calculator.reset();

  NCDataVector<float> heights;
  NCIntegralVector<unsigned long, 0> a, b, merged;
  DendroGram::CreateMergeData(*root, heights, a, b, merged, nullptr, nullptr);
  Layout(*root, result);
  // Cluster sizes: a leaf is one row, merge k (cluster N + k) the sum of what it joined.
  const long n = static_cast<long>(result.data.row_names.size());
  std::vector<int> size(static_cast<std::size_t>(n + heights.Size() + 1), 1);
  for (int k = 1; k <= heights.Size(); ++k) {
    const int joined = size[a[k]] + size[b[k]];
    size[merged[k]] = joined;
    result.merges.push_back({heights[k], static_cast<long>(a[k]), static_cast<long>(b[k]),
                             static_cast<long>(merged[k]), joined});
  }
  if (cut > 0) CutTree(result);
  return result;
}

}  // namespace mvda::cli
