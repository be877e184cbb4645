// libFuzzer target for the dendrogram cache entry reader. The input is read as an entry as it
// is, and as the tree of an entry whose header and MD5 are made right for it (so that the fuzzer
// reaches the tree reader and the leaf checks behind the checksum); the row count comes from the
// input's first two bytes. An entry is either refused or gives a tree of exactly that many
// leaves holding rows 1..N once each, and the reader never throws.
#include <mvda/cluster/dendrogram_cache.h>
#include <mvda/platform/md5.h>

#include <cstdint>
#include <list>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz_input.h"

namespace {

using DendroGram::DendroGramNode;

const std::string kKey = "0123456789abcdef0123456789abcdef";

void Check(const std::string& entry, int rows) {
  std::istringstream is(entry);
  DendroGramNode* root = DendroGram::ReadDendroGramCacheEntry(is, kKey, rows);
  if (!root) return;
  std::list<const DendroGramNode*> nodes;
  root->GetNodes(nodes);
  std::vector<int> seen(static_cast<std::size_t>(rows) + 1, 0);
  for (const DendroGramNode* n : nodes) {
    if (!n->IsLeaf()) continue;
    fuzz::Require(n->Items()->size() == 1, "a leaf of an accepted entry holds other than one row");
    const std::uint32_t row = n->Items()->front();
    fuzz::Require(row >= 1 && row <= static_cast<std::uint32_t>(rows) && seen[row]++ == 0,
                  "an accepted entry has a row out of range or twice");
  }
  fuzz::Require(root->SizeLeafs() == static_cast<unsigned>(rows), "wrong leaf count accepted");
  root->Destroy();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const int rows = 1 + ((data[0] | (data[1] << 8)) % 4096);
  const std::string tree(reinterpret_cast<const char*>(data) + 2, size - 2);
  Check(tree, rows);
  MD5 sum;
  sum.Update(tree);
  Check("MVDADendroCache 1\n" + kKey + sum.HexDigest() + "\n" + tree, rows);
  return 0;
}
