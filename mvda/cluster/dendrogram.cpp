// DendroGram::GetDendroGram (agglomeration, the missing-value admission check, the cache) and
// DendroGram::CreateMergeData.
#include <mvda/cluster/dendrogram.h>
#include <mvda/cluster/dendrogram_cache.h>
#include <mvda/cluster/detail/admission.h>
#include <mvda/cluster/detail/pair_distances.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/platform/error.h>
#include <mvda/platform/md5.h>
#include <mvda/platform/progress.h>
#include <mvda/platform/stream_source.h>

#include <algorithm>
#include <exception>
#include <istream>
#include <memory>
#include <ostream>
#include <queue>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>

namespace DendroGram {
namespace {

void CheckShape(const NCDataMatrix<float>& data) {
  mvda::detail::CheckClusterShape(data, "DendroGram::GetDendroGram");
  mvda::detail::CheckRowCount(data.SizeRows());
}

// A cached tree is used only when it has one leaf per row, each holding one row 1..N once.
bool FitsData(const DendroGramNode& root, int rows) {
  if (root.SizeLeafs() != static_cast<unsigned>(rows)) return false;
  std::list<const DendroGramNode*> nodes;
  root.GetNodes(nodes);
  std::vector<bool> seen(rows + 1, false);
  for (const DendroGramNode* node : nodes) {
    if (!node->IsLeaf()) continue;
    const std::vector<std::uint32_t>& items = *node->Items();
    if (items.size() != 1 || items[0] < 1 || items[0] > static_cast<std::uint32_t>(rows) ||
        seen[items[0]])
      return false;
    seen[items[0]] = true;
  }
  return true;
}

constexpr char kEntryHead[] = "MVDADendroCache 1\n";
constexpr std::size_t kHeadSize = sizeof kEntryHead - 1;
constexpr std::size_t kPreambleSize = kHeadSize + 32 + 32 + 1;

std::string CacheName(const std::string& key, const NCDataMatrix<float>& data) {
  return "Dendro_" + std::to_string(data.SizeRows()) + "_" + std::to_string(data.SizeColumns()) +
         "_" + key;
}

DendroGramNode* ReadCached(TwStreamSource& cache, const std::string& key,
                           const NCDataMatrix<float>& data) {
  try {
    std::unique_ptr<std::istream> is = cache.OpenInputStream(CacheName(key, data));
    return is ? ReadDendroGramCacheEntry(*is, key, data.SizeRows()) : nullptr;
  } catch (const std::exception&) {
    return nullptr;  // an unreadable entry is computed again and replaced
  }
}

// The cache only saves time: a tree that cannot be stored is still returned. The folder source
// writes to a temporary file renamed over the entry, so a reader sees the old entry or the new.
void WriteCached(TwStreamSource& cache, const std::string& key, const NCDataMatrix<float>& data,
                 const DendroGramNode& root) {
  try {
    if (std::unique_ptr<std::ostream> os = cache.OpenOutputStream(CacheName(key, data)))
      WriteDendroGramCacheEntry(root, key, *os);
  } catch (const std::exception&) {
  }
}

// Owns the nodes of an unfinished agglomeration, so that they are freed when it is abandoned.
class NodeList {
 public:
  NodeList() = default;
  NodeList(const NodeList&) = delete;
  NodeList& operator=(const NodeList&) = delete;
  ~NodeList() {
    for (DendroGramNode* node : nodes_) DendroGramNode::DestroyNode(node);
  }
  std::vector<DendroGramNode*>& Nodes() { return nodes_; }
  DendroGramNode* Release() {
    DendroGramNode* root = nodes_.front();
    nodes_.clear();
    return root;
  }

 private:
  std::vector<DendroGramNode*> nodes_;
};

}  // namespace

std::string DendroGramCacheKey(const NCDataMatrix<float>& data,
                               const ClusterDistanceCalculator& calc) {
  MD5 digest;
  for (int i = 1; i <= data.SizeRows(); ++i)
    digest.Update(data[i].begin(), sizeof(float) * static_cast<std::size_t>(data.SizeColumns()));
  digest.Update(calc.GetId());
  return digest.HexDigest();
}

bool WriteDendroGramCacheEntry(const DendroGramNode& root, const std::string& key,
                               std::ostream& os) {
  std::ostringstream tree;
  if (!StreamOut(root, tree)) return false;
  const std::string bytes = std::move(tree).str();
  MD5 sum;
  sum.Update(bytes);
  os << kEntryHead << key << sum.HexDigest() << '\n' << bytes;
  return static_cast<bool>(os);
}

DendroGramNode* ReadDendroGramCacheEntry(std::istream& is, const std::string& key, int rows) {
  if (rows < 1 || key.size() != 32) return nullptr;
  // A tree of N leaves takes about 35 bytes a leaf; anything far longer is not one.
  const std::size_t limit = kPreambleSize + 4096 + 256 * static_cast<std::size_t>(rows);
  std::string bytes;
  char chunk[16384];
  while (bytes.size() <= limit && (is.read(chunk, sizeof chunk) || is.gcount() > 0))
    bytes.append(chunk, static_cast<std::size_t>(is.gcount()));
  if (bytes.size() > limit || bytes.size() < kPreambleSize ||
      bytes.compare(0, kHeadSize, kEntryHead) != 0 || bytes.compare(kHeadSize, 32, key) != 0 ||
      bytes[kPreambleSize - 1] != '\n')
    return nullptr;
  MD5 sum;
  sum.Update(bytes.data() + kPreambleSize, bytes.size() - kPreambleSize);
  if (bytes.compare(kHeadSize + 32, 32, sum.HexDigest()) != 0) return nullptr;
  std::istringstream tree(bytes.substr(kPreambleSize));
  auto* root = new DendroGramNode();
  bool ok = false;
  try {
    ok = StreamIn(*root, tree) && tree.peek() == std::char_traits<char>::eof() &&
         FitsData(*root, rows);
  } catch (const std::exception&) {
    ok = false;
  }
  if (!ok) {
    root->Destroy();
    return nullptr;
  }
  return root;
}

DendroGramNode* GetDendroGram(const NCDataMatrix<float>& data, ClusterDistanceCalculator& calc,
                              NCProgress* progress, TwStreamSource* cache) {
  const NCDataMatrix<float> x(data);  // shares the rows; the caller's later writes unshare them
  CheckShape(x);
  const int rows = x.SizeRows();
  std::string key;
  if (cache) {
    key = DendroGramCacheKey(x, calc);
    if (DendroGramNode* cached = ReadCached(*cache, key, x)) return cached;
  }
  if (progress) {
    progress->SetRange(0, 10);
    progress->PushSubRange(0, 5);
  }
  if (x.GetNumMisVal() > 0) mvda::detail::CheckCommonColumns(x);

  NodeList list;
  std::vector<DendroGramNode*>& nodes = list.Nodes();
  nodes.reserve(rows);
  for (int r = 1; r <= rows; ++r) nodes.push_back(new DendroGramNode(r));

  calc.Init(x, progress);
  if (progress) {
    progress->PopSubRange();
    progress->PushSubRange(5, 10);
    progress->SetText("Merging clusters");
    progress->SetRange(0, rows);
  }
  for (int merges = 1; nodes.size() > 1; ++merges) {
    int i = -1, j = -1;
    const float distance = calc.FindNearestAndMerge(i, j);
    if (i > j) std::swap(i, j);
    if (i < 0 || i == j || static_cast<std::size_t>(j) >= nodes.size())
      throw NCError("DendroGram::GetDendroGram: the calculator merged clusters " +
                    std::to_string(i) + " and " + std::to_string(j) + " of " +
                    std::to_string(nodes.size()));
    // The children leave the list only once their parent owns them.
    nodes[i] = new DendroGramNode(distance, nodes[i], nodes[j]);
    nodes.erase(nodes.begin() + j);
    if (progress) {
      if (merges % 10 == 0 && !progress->SetValue(merges))
        throw NCError("Cluster analysis aborted.", NCError::kStopRequested);
      if (progress->IsBreakPressed())
        throw NCError("Cluster analysis aborted.", NCError::kUserStop);
    }
  }
  if (progress) progress->PopSubRange();
  nodes.front()->SortBySize();
  if (cache) WriteCached(*cache, key, x, *nodes.front());
  return list.Release();
}

void CreateMergeData(const DendroGramNode& root, NCDataVector<float>& heights,
                     NCIntegralVector<unsigned long, 0>& clusterA,
                     NCIntegralVector<unsigned long, 0>& clusterB,
                     NCIntegralVector<unsigned long, 0>& merged,
                     std::vector<std::vector<unsigned long>>* membersA,
                     std::vector<std::vector<unsigned long>>* membersB) {
  if ((membersA == nullptr) != (membersB == nullptr))
    throw NCError("Internal error in DendroGram::CreateMergeData");
  std::list<const DendroGramNode*> listed;
  root.GetNodes(listed);
  const std::vector<const DendroGramNode*> order(listed.begin(), listed.end());
  std::unordered_map<const DendroGramNode*, std::size_t> position;
  position.reserve(order.size());
  unsigned long largest_row = 0;
  for (std::size_t p = 0; p < order.size(); ++p) {
    position[order[p]] = p;
    if (order[p]->IsLeaf())
      for (const std::uint32_t row : *order[p]->Items())
        largest_row = std::max<unsigned long>(largest_row, row);
  }
  const int count = static_cast<int>(order.size() / 2);  // inner nodes of a two-way tree
  heights.SetSize(count);                                // every element -99 until written
  clusterA.SetNumValues(count, 0);
  clusterB.SetNumValues(count, 0);
  merged.SetNumValues(count, 0);
  if (membersA) {
    membersA->assign(count, {});
    membersB->assign(count, {});
  }

  // Cluster number of every node: a leaf's first row (0 when empty), merge k gives largest_row + k.
  std::vector<unsigned long> id(order.size(), 0);
  // Inner nodes become ready when both children are numbered; the lowest ready node merges next,
  // ties by pre-order position (left to right).
  std::vector<int> waiting(order.size(), 0);
  using Ready = std::pair<float, std::size_t>;
  std::priority_queue<Ready, std::vector<Ready>, std::greater<Ready>> ready;
  const auto numbered = [&](std::size_t p) {
    const DendroGramNode* parent = order[p]->GetParent();
    if (order[p] == &root || !parent) return;
    const std::size_t q = position[parent];
    if (++waiting[q] == 2) ready.push({parent->Height(), q});
  };
  for (std::size_t p = 0; p < order.size(); ++p) {
    if (!order[p]->IsLeaf()) continue;
    const std::vector<std::uint32_t>& items = *order[p]->Items();
    id[p] = items.empty() ? 0 : items[0];
    numbered(p);
  }
  std::vector<std::vector<unsigned long>> rows_below;
  if (membersA) rows_below.resize(order.size());
  const auto rows_of = [&](std::size_t p) -> std::vector<unsigned long> {
    if (!order[p]->IsLeaf()) return std::move(rows_below[p]);
    std::vector<unsigned long> rows(order[p]->Items()->begin(), order[p]->Items()->end());
    std::sort(rows.begin(), rows.end());
    return rows;
  };
  for (int k = 1; !ready.empty(); ++k) {
    const std::size_t p = ready.top().second;
    ready.pop();
    const DendroGramNode* node = order[p];
    const std::size_t l = position[node->GetLeft()], r = position[node->GetRight()];
    id[p] = largest_row + static_cast<unsigned long>(k);
    heights(k, node->Height());
    clusterA(k) = id[l];
    clusterB(k) = id[r];
    merged(k) = id[p];
    if (membersA) {
      std::vector<unsigned long>& a = (*membersA)[k - 1];
      std::vector<unsigned long>& b = (*membersB)[k - 1];
      a = rows_of(l);
      b = rows_of(r);
      // The union stays only while the parent's own merge has not been listed.
      if (node != &root) {
        std::vector<unsigned long>& both = rows_below[p];
        both.resize(a.size() + b.size());
        std::merge(a.begin(), a.end(), b.begin(), b.end(), both.begin());
      }
    }
    numbered(p);
  }
}

}  // namespace DendroGram
