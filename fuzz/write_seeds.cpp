// Writes the seed corpora of the model, tree, cache entry and model file fuzz targets from real
// files the tool wrote (a PCA and a PLS model file, a dendrogram cache entry): the objects inside
// them, each written again by its own writer, and a single leaf.
#include <mvda/cluster/dendrogram_cache.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "model_file.h"

namespace {

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

void Put(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string Bytes(const UStreamBase& object) {
  std::ostringstream os;
  StreamOut(object, os);
  return os.str();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: write_seeds <pca.mvda> <pls.mvda> <cache entry> <corpus dir>\n");
    return 2;
  }
  const std::string out = argv[4];
  const std::string pca_bytes = Slurp(argv[1]), pls_bytes = Slurp(argv[2]);
  const mvda::cli::ModelFile pca = mvda::cli::ParseModel(argv[1], pca_bytes);
  const mvda::cli::ModelFile pls = mvda::cli::ParseModel(argv[2], pls_bytes);
  Put(out + "/model_file_fuzz/pca.mvda", pca_bytes);
  Put(out + "/model_file_fuzz/pls.mvda", pls_bytes);
  Put(out + "/scaling_fuzz/x_uv.bin", Bytes(pca.x_scale));
  Put(out + "/scaling_fuzz/y.bin", Bytes(pls.y_scale));
  Put(out + "/pca_model_fuzz/pca.bin", Bytes(pca.pca));
  Put(out + "/pls_model_fuzz/pls.bin", Bytes(pls.pls));

  const std::string entry = Slurp(argv[3]);
  const std::string key = entry.substr(18, 32);  // after "MVDADendroCache 1\n"
  const std::string name = argv[3];
  const int rows = std::stoi(name.substr(name.rfind("Dendro_") + 7));
  std::istringstream is(entry);
  DendroGram::DendroGramNode* root = DendroGram::ReadDendroGramCacheEntry(is, key, rows);
  if (!root) {
    std::fprintf(stderr, "write_seeds: %s is not a cache entry\n", argv[3]);
    return 1;
  }
  Put(out + "/dendrogram_fuzz/tree.bin", Bytes(*root));
  const DendroGram::DendroGramNode* leaf = root;
  while (!leaf->IsLeaf()) leaf = leaf->GetLeft();
  Put(out + "/dendrogram_fuzz/leaf.bin", Bytes(*leaf));
  // The cache entry target reads two bytes of row count, then the tree.
  const std::string count{static_cast<char>((rows - 1) & 0xff), static_cast<char>((rows - 1) >> 8)};
  Put(out + "/cache_entry_fuzz/tree.bin", count + Bytes(*root));
  root->Destroy();
  return 0;
}
