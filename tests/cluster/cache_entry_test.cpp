// Dendrogram cache entries: an entry is used only when it is whole and was computed from the same
// data; anything else is computed again and rewritten, also while other threads read and write
// the same folder.
#include <mvda/cluster/dendrogram.h>
#include <mvda/cluster/dendrogram_cache.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/containers/data_matrix.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream_source.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <csignal>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace DendroGram;
namespace fs = std::filesystem;

NCDataMatrix<float> RandomMatrix(unsigned seed, int rows, int columns) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal(0, 1);
  NCDataMatrix<float> m(rows, columns, 0.0f);
  for (int i = 1; i <= rows; ++i)
    for (int j = 1; j <= columns; ++j) m(i, j, normal(random));
  return m;
}

struct Tree {
  DendroGramNode* root;
  Tree(const Tree&) = delete;
  ~Tree() {
    if (root) DendroGramNode::DestroyNode(root);
  }
};

class CountingWard : public WardDistanceCalculator {
 public:
  CountingWard() : WardDistanceCalculator(kErrorSumOfSquares) {}
  void Init(const NCDataMatrix<float>& data, NCProgress* progress) override {
    ++inits;
    WardDistanceCalculator::Init(data, progress);
  }
  int inits = 0;
};

std::string Slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

void Put(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class CacheEntry : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() / ("mvda_cache_entry_" + std::to_string(getpid()));
    fs::remove_all(folder_);
  }
  void TearDown() override { fs::remove_all(folder_); }
  fs::path folder_;
};

TEST_F(CacheEntry, OnlyAWholeEntryOfTheSameDataIsUsed) {
  const NCDataMatrix<float> a = RandomMatrix(1, 30, 4), b = RandomMatrix(2, 30, 4);
  CountingWard plain_a, plain_b;
  Tree fresh_a{GetDendroGram(a, plain_a, nullptr, nullptr)};
  Tree fresh_b{GetDendroGram(b, plain_b, nullptr, nullptr)};
  ASSERT_FALSE(*fresh_a.root == *fresh_b.root);

  TwFolderStreamSource cache(folder_);
  CountingWard first_a, first_b;
  Tree cached_a{GetDendroGram(a, first_a, nullptr, &cache)};
  Tree cached_b{GetDendroGram(b, first_b, nullptr, &cache)};
  const fs::path entry_a = folder_ / ("Dendro_30_4_" + DendroGramCacheKey(a, first_a));
  const fs::path entry_b = folder_ / ("Dendro_30_4_" + DendroGramCacheKey(b, first_b));
  const std::string good_a = Slurp(entry_a), good_b = Slurp(entry_b);
  ASSERT_FALSE(good_a.empty());
  ASSERT_FALSE(good_b.empty());

  std::string other_version = good_b;
  other_version[16] = '2';  // "MVDADendroCache 2"
  std::string flipped = good_b;
  flipped[good_b.size() - 5] ^= 0x01;
  struct Case {
    const char* name;
    std::string bytes;
  };
  const std::vector<Case> bad = {
      {"the entry of other data under this data's name", good_a},
      {"truncated in the tree", good_b.substr(0, good_b.size() - 1)},
      {"truncated in the header", good_b.substr(0, 40)},
      {"empty", ""},
      {"a flipped byte", flipped},
      {"another version", other_version},
      {"a longer file", good_b + "more"},
  };
  for (const Case& c : bad) {
    SCOPED_TRACE(c.name);
    Put(entry_b, c.bytes);
    CountingWard recomputed;
    Tree t{GetDendroGram(b, recomputed, nullptr, &cache)};
    EXPECT_EQ(recomputed.inits, 1);
    EXPECT_TRUE(*t.root == *fresh_b.root);
    EXPECT_EQ(Slurp(entry_b), good_b);  // rewritten
    CountingWard reread;
    Tree again{GetDendroGram(b, reread, nullptr, &cache)};
    EXPECT_EQ(reread.inits, 0);
    EXPECT_TRUE(*again.root == *fresh_b.root);
  }

  // The reader refuses a key or a row count other than the entry's.
  std::istringstream in_a(good_a);
  EXPECT_EQ(ReadDendroGramCacheEntry(in_a, DendroGramCacheKey(b, first_b), 30), nullptr);
  std::istringstream in_rows(good_a);
  EXPECT_EQ(ReadDendroGramCacheEntry(in_rows, DendroGramCacheKey(a, first_a), 29), nullptr);
}

// Writers replace entries whole, readers check them: with four threads clustering two data
// sets through one folder while a fifth keeps damaging the entries, every tree is right.
TEST_F(CacheEntry, SharedFolderNeverServesAWrongTree) {
  const NCDataMatrix<float> data[2] = {RandomMatrix(3, 40, 3), RandomMatrix(4, 40, 3)};
  std::vector<std::string> expected;
  for (const auto& d : data) {
    CountingWard plain;
    Tree t{GetDendroGram(d, plain, nullptr, nullptr)};
    std::ostringstream os;
    ASSERT_TRUE(StreamOut(*t.root, os));
    expected.push_back(os.str());
  }
  CountingWard keys;
  const std::string names[2] = {"Dendro_40_3_" + DendroGramCacheKey(data[0], keys),
                                "Dendro_40_3_" + DendroGramCacheKey(data[1], keys)};
  std::atomic<int> wrong{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      TwFolderStreamSource cache(folder_);
      for (int round = 0; round < 40; ++round) {
        const int k = (t + round) % 2;
        CountingWard calc;
        Tree tree{GetDendroGram(data[k], calc, nullptr, &cache)};
        std::ostringstream os;
        if (!StreamOut(*tree.root, os) || os.str() != expected[static_cast<std::size_t>(k)]) ++wrong;
      }
    });
  }
  std::thread vandal([&] {
    std::mt19937 random(5);
    for (int round = 0; !done; ++round) {
      const fs::path victim = folder_ / names[round % 2];
      std::error_code error;
      if (round % 3 == 0) {
        fs::copy_file(folder_ / names[1 - round % 2], victim,
                      fs::copy_options::overwrite_existing, error);
      } else if (fs::exists(victim, error)) {
        std::string bytes = Slurp(victim);
        if (!bytes.empty()) bytes[random() % bytes.size()] ^= 0x40;
        Put(victim, bytes);
      }
      std::this_thread::yield();
    }
  });
  for (auto& t : threads) t.join();
  done = true;
  vandal.join();
  EXPECT_EQ(wrong, 0);
}

// A spill that the disk cannot hold (here a file size limit of 8 KiB) names the folder and the
// bytes the spill needs, and leaves no file behind.
TEST_F(CacheEntry, SpillOnAFullDiskNamesTheFolderAndTheBytes) {
  fs::create_directories(folder_);
  const char* old_tmpdir = std::getenv("TMPDIR");
  const std::string saved = old_tmpdir ? old_tmpdir : "";
  setenv("TMPDIR", folder_.c_str(), 1);
  rlimit old_limit{};
  getrlimit(RLIMIT_FSIZE, &old_limit);
  const rlimit small{8192, old_limit.rlim_max};
  const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
  SetDistanceListMemoryLimit(1000);
  std::string message;
  {
    const NCDataMatrix<float> x = RandomMatrix(6, 100, 2);
    setrlimit(RLIMIT_FSIZE, &small);
    SingleLinkageDistanceCalculator single;
    try {
      Tree t{GetDendroGram(x, single, nullptr, nullptr)};
    } catch (const NCError& e) {
      message = e.what();
    }
    setrlimit(RLIMIT_FSIZE, &old_limit);
  }
  SetDistanceListMemoryLimit(0);
  std::signal(SIGXFSZ, old_handler);
  if (old_tmpdir) {
    setenv("TMPDIR", saved.c_str(), 1);
  } else {
    unsetenv("TMPDIR");
  }
  // 100 rows: 4950 distances of 12 bytes, twice.
  EXPECT_NE(message.find("no room for the distances in the temporary folder " + folder_.string()),
            std::string::npos) << message;
  EXPECT_NE(message.find("the spill needs about 118800 bytes there"), std::string::npos) << message;
  EXPECT_TRUE(fs::is_empty(folder_));
}

// A writer killed before its rename leaves "<entry>.<pid>.<n>.partial"; the next writer of the
// entry removes it once that process has ended, and leaves a live writer's file alone.
TEST_F(CacheEntry, WriterRemovesPartialFilesOfEndedProcesses) {
  const NCDataMatrix<float> x = RandomMatrix(7, 10, 2);
  CountingWard calc;
  const std::string entry = "Dendro_10_2_" + DendroGramCacheKey(x, calc);
  const pid_t ended = fork();
  if (ended == 0) _exit(0);
  waitpid(ended, nullptr, 0);
  fs::create_directories(folder_);
  const std::string stale = entry + "." + std::to_string(ended) + ".77.partial";
  const std::string live = entry + "." + std::to_string(getpid()) + ".78.partial";
  Put(folder_ / stale, "half");
  Put(folder_ / live, "being written");
  TwFolderStreamSource cache(folder_);
  Tree t{GetDendroGram(x, calc, nullptr, &cache)};
  EXPECT_FALSE(fs::exists(folder_ / stale));
  EXPECT_TRUE(fs::exists(folder_ / live));
  EXPECT_TRUE(fs::exists(folder_ / entry));
}

}  // namespace
