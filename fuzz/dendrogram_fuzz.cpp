// libFuzzer target for the DendroGramNode reader (a tree and each of its nodes, as the cluster
// cache stores them): a read through a seekable and through a one-way stream agrees, a tree read
// has as many leaves as it says, and it writes and reads back to the same bytes.
#include <mvda/cluster/dendrogram.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "fuzz_input.h"

namespace {

using DendroGram::DendroGramNode;

struct Owned {
  DendroGramNode* node = new DendroGramNode();
  ~Owned() { node->Destroy(); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Owned seekable, piped;
  if (fuzz::ReadEachWay(bytes, *seekable.node, *piped.node)) {
    // By bytes: a NaN height read both ways is the same tree, though NaN != NaN.
    fuzz::Require(fuzz::Bytes(*seekable.node) == fuzz::Bytes(*piped.node),
                  "seekable and one-way reads differ");
    std::list<const DendroGramNode*> nodes;
    seekable.node->GetNodes(nodes);
    unsigned leaves = 0;
    for (const DendroGramNode* n : nodes) leaves += n->IsLeaf();
    fuzz::Require(leaves == seekable.node->SizeLeafs(), "the leaf count is not the tree's");
    Owned again;
    fuzz::RequireStableRoundTrip(*seekable.node, *again.node);
  }
  return 0;
}
