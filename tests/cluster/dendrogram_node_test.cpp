#include <mvda/cluster/dendrogram.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream.h>

#include <cstdint>
#include <list>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

namespace {

using DendroGram::DendroGramNode;

// Frees a tree at the end of a test.
struct Tree {
  DendroGramNode* root;
  ~Tree() { DendroGramNode::DestroyNode(root); }
};

DendroGramNode* Join(float height, DendroGramNode* left, DendroGramNode* right) {
  return new DendroGramNode(height, left, right);
}

// ((1, 2) at 1, 3) at 2.
DendroGramNode* SmallTree() {
  return Join(2, Join(1, new DendroGramNode(1), new DendroGramNode(2)), new DendroGramNode(3));
}

std::list<int> Leafs(const DendroGramNode& node) {
  std::list<int> rows;
  node.GetLeafs(rows);
  return rows;
}

// A random tree over rows 1..n: random pairs of the current clusters merge at increasing heights.
DendroGramNode* RandomTree(int n, std::mt19937& random) {
  std::vector<DendroGramNode*> nodes;
  for (int r = 1; r <= n; ++r) nodes.push_back(new DendroGramNode(r));
  for (float h = 1; nodes.size() > 1; ++h) {
    std::uniform_int_distribution<std::size_t> pick(0, nodes.size() - 1);
    std::size_t i = pick(random), j = pick(random);
    while (j == i) j = pick(random);
    if (i > j) std::swap(i, j);
    nodes[i] = Join(h, nodes[i], nodes[j]);
    nodes[i]->SetModel(static_cast<int>(h) % 3);
    nodes.erase(nodes.begin() + j);
  }
  return nodes[0];
}

TEST(DendroGramNode, LeafAndSmallTrees) {
  Tree leaf{new DendroGramNode(7)};
  EXPECT_TRUE(leaf.root->IsLeaf());
  EXPECT_EQ(leaf.root->Height(), 0.0f);  // the field holds -0.5
  EXPECT_EQ(leaf.root->SizeLeafs(), 1u);
  EXPECT_EQ(leaf.root->GetLeft(), nullptr);
  EXPECT_EQ(leaf.root->GetXOffset(), 0.5f);
  leaf.root->MirrorImage();
  leaf.root->SortByIndex();
  leaf.root->Normalise();
  EXPECT_EQ(Leafs(*leaf.root), std::list<int>{7});
  EXPECT_THROW(new DendroGramNode(0), NCError);

  Tree two{Join(3, new DendroGramNode(1), new DendroGramNode(2))};
  EXPECT_EQ(two.root->GetXOffset(), 0.5f);  // 0.5 * (0.25 + 0.75)
  EXPECT_EQ(two.root->GetLeft()->GetParent(), two.root);

  // 0.5 * (2/3 * 0.5 + (1 * 0.5 + 2) / 3) = 7/12.
  Tree three{SmallTree()};
  EXPECT_FLOAT_EQ(three.root->GetXOffset(), 7.0f / 12.0f);
  EXPECT_EQ(three.root->SizeLeafs(), 3u);
  EXPECT_EQ(three.root->SizeItems(), 0u);
  EXPECT_EQ(three.root->Items(), nullptr);
  // Mirrored: (3, (2, 1)); the root is 0.5 * (1/3 * 0.5 + (2 * 0.5 + 1) / 3) = 5/12.
  three.root->MirrorImage();
  EXPECT_EQ(Leafs(*three.root), (std::list<int>{3, 2, 1}));
  EXPECT_FLOAT_EQ(three.root->GetXOffset(), 5.0f / 12.0f);
  // Swapping a child walks up: ((2,1) swapped back to (1,2)) leaves the root at 5/12.
  three.root->GetRight()->SwapLeftAndRigth();
  EXPECT_EQ(Leafs(*three.root), (std::list<int>{3, 1, 2}));
  EXPECT_FLOAT_EQ(three.root->GetXOffset(), 5.0f / 12.0f);
  three.root->SortBySize();  // the leaf (1 leaf) stays left of the pair (2 leaves)
  EXPECT_EQ(Leafs(*three.root), (std::list<int>{3, 1, 2}));
  three.root->SortByIndex();
  EXPECT_EQ(Leafs(*three.root), (std::list<int>{1, 2, 3}));
  EXPECT_FLOAT_EQ(three.root->GetXOffset(), 7.0f / 12.0f);
  three.root->Normalise();
  EXPECT_EQ(three.root->Height(), 1.0f);
  EXPECT_EQ(three.root->GetLeft()->Height(), 0.5f);

  DendroGramNode* a = new DendroGramNode(1);
  EXPECT_THROW(new DendroGramNode(1, a, a), NCError);
  EXPECT_THROW(new DendroGramNode(1, a, nullptr), NCError);
  a->Destroy();
}

TEST(DendroGramNode, ReorderRules) {
  // (4, (2, 3)) with heights: root 5, pair 1.
  const auto make = [] {
    return Join(5, new DendroGramNode(4), Join(1, new DendroGramNode(3), new DendroGramNode(2)));
  };
  struct Case {
    const char* name;
    void (DendroGramNode::*reorder)() const;
    std::list<int> leafs;
    float x;  // the root's x offset in twelfths
  };
  const Case cases[] = {
      {"size: equal sizes keep their order", &DendroGramNode::SortBySize, {4, 3, 2}, 5},
      {"height: the leaf (0) is lower than the pair (1)",
       &DendroGramNode::SortByHeight,
       {4, 3, 2},
       5},
      {"index: smallest rows 4 > 2, then 3 > 2", &DendroGramNode::SortByIndex, {2, 3, 4}, 7},
      {"mirror", &DendroGramNode::MirrorImage, {2, 3, 4}, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Tree t{make()};
    (t.root->*c.reorder)();
    EXPECT_EQ(Leafs(*t.root), c.leafs);
    // (leaf, pair): 0.5 * (1/3 * 0.5 + (2 * 0.5 + 1) / 3) = 5/12; (pair, leaf): 7/12.
    EXPECT_FLOAT_EQ(t.root->GetXOffset(), c.x / 12.0f);
  }
}

TEST(DendroGramNode, CutsSplitsAndLinks) {
  Tree t{SmallTree()};
  std::list<const DendroGramNode*> cut;
  t.root->GetNodes(cut, 1.5f);  // the pair (1, 2) and the leaf 3
  ASSERT_EQ(cut.size(), 2u);
  EXPECT_EQ(Leafs(*cut.front()), (std::list<int>{1, 2}));
  cut.clear();
  t.root->GetNodes(cut, 0.5f);
  EXPECT_EQ(cut.size(), 3u);
  cut.clear();
  t.root->GetNodes(cut, 2.0f);
  EXPECT_EQ(cut.size(), 1u);

  const auto groups = t.root->Split({3, 1, 2, 1}, 1.5f);
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups[0], (std::list<int>{1, 2}));
  EXPECT_EQ(groups[1], (std::list<int>{3}));
  EXPECT_EQ(t.root->Split({3}, 1.5f).size(), 1u);
  try {
    t.root->Split({4}, 1.5f);
    ADD_FAILURE() << "no exception";
  } catch (const NCError& e) {
    EXPECT_STREQ(e.what(), "Internal error in DendroGramNode::Split");
  }

  EXPECT_TRUE(t.root->IsSubNode(t.root->GetLeft()->GetRight()));
  EXPECT_FALSE(t.root->GetLeft()->IsSubNode(t.root->GetRight()));
  // Two roots swapped by hand, then relinked.
  Tree other{Join(4, new DendroGramNode(5), new DendroGramNode(6))};
  t.root->swap(*other.root);
  EXPECT_EQ(Leafs(*t.root), (std::list<int>{5, 6}));
  EXPECT_EQ(t.root->GetLeft()->GetParent(), t.root);
  std::list<const DendroGramNode*> nodes;
  other.root->GetNodes(nodes);
  EXPECT_EQ(nodes.size(), 5u);
  DendroGramNode::ReLink(nodes);
  EXPECT_EQ(other.root->GetLeft()->GetLeft()->GetParent(), other.root->GetLeft());
}

TEST(DendroGramNode, CopyAssignAndCompare) {
  std::mt19937 random(7);
  Tree a{RandomTree(40, random)};
  Tree b{new DendroGramNode(*a.root)};
  EXPECT_TRUE(*a.root == *b.root);
  b.root->GetLeft()->SetModel(99);
  EXPECT_TRUE(*a.root != *b.root);
  Tree c{new DendroGramNode()};
  *c.root = *a.root;
  EXPECT_TRUE(*a.root == *c.root);
  // Assigning a node's own child to it.
  const std::list<int> left_rows = Leafs(*a.root->GetLeft());
  *a.root = *a.root->GetLeft();
  EXPECT_EQ(Leafs(*a.root), left_rows);
}

// ---------------------------------------------------------------------------------------------
// Streams

std::string Bytes(const DendroGramNode& node) {
  std::ostringstream os;
  EXPECT_TRUE(StreamOut(node, os));
  return os.str();
}

TEST(DendroGramStream, RoundTripOfRandomTrees) {
  std::mt19937 random(11);
  for (const int n : {1, 2, 3, 17, 200}) {
    SCOPED_TRACE(n);
    Tree t{RandomTree(n, random)};
    t.root->SortByIndex();
    Tree back{new DendroGramNode()};
    std::istringstream is(Bytes(*t.root));
    ASSERT_TRUE(StreamIn(*back.root, is));
    EXPECT_TRUE(*back.root == *t.root);  // shape, items, heights, x offsets, models
    EXPECT_EQ(Leafs(*back.root), Leafs(*t.root));
  }
}

// (1, 2) at 2.5, spelled out: the record, an empty UStreamBase part, a directory of one entry.
const unsigned char kPair[] = {
    0x06, 0, 0, 0, 'D',  'e',  'n', 'd',  'r',  'o',  0x01, 0, 0, 0,  // record "Dendro", version 1
    0x01, 0, 0, 0,                                                    // one entry
    0x00, 0, 0, 0, 0x33, 0,    0,   0,    0,    0,    0,    0,        // entry 0, 51 bytes
    0x00, 0, 0, 0, 0x3F, 0,    0,   0x20, 0x40, 0x02, 0,    0, 0, 0,
    0,    0, 0,  // inner, 0.5, 2.5, 2 leaves
    0x01, 0, 0, 0, 0x3F, 0x01, 0,   0,    0,    0x01, 0,    0, 0, 0,
    0,    0, 0,  // leaf, 0.5, {1}, model 0
    0x01, 0, 0, 0, 0x3F, 0x01, 0,   0,    0,    0x02, 0,    0, 0, 0,
    0,    0, 0,  // leaf, 0.5, {2}, model 0
};

TEST(DendroGramStream, SpelledOutBytesAndEveryTruncation) {
  const std::string bytes(reinterpret_cast<const char*>(kPair), sizeof kPair);
  Tree pair{Join(2.5f, new DendroGramNode(1), new DendroGramNode(2))};
  EXPECT_EQ(Bytes(*pair.root), bytes);
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    SCOPED_TRACE(length);
    Tree back{SmallTree()};
    std::istringstream is(bytes.substr(0, length));
    EXPECT_FALSE(StreamIn(*back.root, is));
    EXPECT_TRUE(back.root->IsLeaf());  // a failed read leaves an empty leaf
    EXPECT_EQ(back.root->SizeItems(), 0u);
  }
}

TEST(DendroGramStream, CorruptRecordsFail) {
  const std::string good(reinterpret_cast<const char*>(kPair), sizeof kPair);
  struct Case {
    const char* name;
    std::size_t at;
    unsigned char value;
  };
  const Case cases[] = {
      {"version 2", 10, 0x02},
      {"leaf flag 2", 47, 0x02},
      {"leaf count 3 for two leaves", 39, 0x03},
      {"leaf count 1", 39, 0x01},
      {"an inner node where a leaf was, without children", 47, 0x00},
      {"item count 2^24 + 1 beyond the bytes left", 55, 0x01},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string bytes = good;
    bytes[c.at] = static_cast<char>(c.value);
    Tree back{new DendroGramNode()};
    std::istringstream is(bytes);
    EXPECT_FALSE(StreamIn(*back.root, is));
    EXPECT_TRUE(back.root->IsLeaf());
  }
}

// ---------------------------------------------------------------------------------------------
// Deep trees: every walk must be iterative. The body runs on a thread with a 256 KiB stack, which
// a recursion 60000 deep would overflow at once.

void RunWithSmallStack(void (*body)()) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, 256 * 1024);
  pthread_t thread;
  ASSERT_EQ(pthread_create(
                &thread, &attributes,
                [](void* f) -> void* {
                  reinterpret_cast<void (*)()>(f)();
                  return nullptr;
                },
                reinterpret_cast<void*>(body)),
            0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

void ChainOperations() {
  constexpr int kLeafs = 60000;
  // (((1, 2), 3), ... ), each row joining at its own height.
  DendroGramNode* root = new DendroGramNode(1);
  for (int r = 2; r <= kLeafs; ++r) root = Join(float(r), root, new DendroGramNode(r));
  Tree chain{root};
  EXPECT_EQ(root->SizeLeafs(), unsigned(kLeafs));
  root->SortBySize();  // every node swaps: the chain hangs to the right
  EXPECT_TRUE(root->GetLeft()->IsLeaf());
  EXPECT_EQ(Leafs(*root).front(), kLeafs);
  root->SortByIndex();
  EXPECT_EQ(Leafs(*root).front(), 1);
  root->SortByHeight();
  root->MirrorImage();
  root->Normalise();
  EXPECT_EQ(root->Height(), 1.0f);
  Tree copy{new DendroGramNode(*root)};
  EXPECT_TRUE(*copy.root == *root);
  std::stringstream stream;
  ASSERT_TRUE(StreamOut(*root, stream));
  Tree back{new DendroGramNode()};
  ASSERT_TRUE(StreamIn(*back.root, stream));
  EXPECT_TRUE(*back.root == *root);
  NCDataVector<float> heights;
  NCIntegralVector<unsigned long, 0> a, b, merged;
  DendroGram::CreateMergeData(*root, heights, a, b, merged, nullptr, nullptr);
  EXPECT_EQ(heights.Size(), kLeafs - 1);
  std::list<const DendroGramNode*> cut;
  root->GetNodes(cut, 0.5f);
  // Node r (rows 1..r) is at r / 60000 after Normalise: node 30000 and the 30000 leaves above it.
  EXPECT_EQ(cut.size(), std::size_t(30001));
}

TEST(DendroGramNode, ChainOf60000LeafsNeedsNoDeepStack) { RunWithSmallStack(ChainOperations); }

// ---------------------------------------------------------------------------------------------
// Merge data

TEST(DendroGramMergeData, ListsMergesByHeight) {
  // ((1, 2) at 1, (3, (4, 5) at 0.5) at 3) at 4: merges by height (4,5), (1,2), (3,45), (12,345).
  // Rows go up to 5, so merge k makes cluster 5 + k.
  Tree t{Join(
      4, Join(1, new DendroGramNode(1), new DendroGramNode(2)),
      Join(3, new DendroGramNode(3), Join(0.5f, new DendroGramNode(4), new DendroGramNode(5))))};
  NCDataVector<float> heights(9, 1.0f);
  NCIntegralVector<unsigned long, 0> a, b, merged;
  std::vector<std::vector<unsigned long>> in_a, in_b;
  DendroGram::CreateMergeData(*t.root, heights, a, b, merged, &in_a, &in_b);
  ASSERT_EQ(heights.Size(), 4);
  const float expected_heights[] = {0.5f, 1, 3, 4};
  const unsigned long expected[][3] = {{4, 5, 6}, {1, 2, 7}, {3, 6, 8}, {7, 8, 9}};
  for (int k = 1; k <= 4; ++k) {
    SCOPED_TRACE(k);
    EXPECT_EQ(heights[k], expected_heights[k - 1]);
    EXPECT_EQ(a[k], expected[k - 1][0]);
    EXPECT_EQ(b[k], expected[k - 1][1]);
    EXPECT_EQ(merged[k], expected[k - 1][2]);
  }
  EXPECT_EQ(in_a[3], (std::vector<unsigned long>{1, 2}));
  EXPECT_EQ(in_b[3], (std::vector<unsigned long>{3, 4, 5}));
  EXPECT_EQ(in_b[2], (std::vector<unsigned long>{4, 5}));
  try {
    DendroGram::CreateMergeData(*t.root, heights, a, b, merged, &in_a, nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const NCError& e) {
    EXPECT_STREQ(e.what(), "Internal error in DendroGram::CreateMergeData");
  }
}

}  // namespace
