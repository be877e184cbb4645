// A version-1 model file (no checksum) whose kind code was edited: predict names what the file is
// marked as and what it holds, instead of calling it merely damaged.
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "run_tool.h"
#include "support/csv.h"  // DataDir()

namespace {

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(ModelKind, EditedKindOfVersionOneFileIsNamed) {
  ScratchDir dir("model_kind");
  const std::string fixtures = DataDir() + "/../tests/apps/data/";
  // The kind code's place by the stream layout (docs/stream-format.md): the record (length 4,
  // "MVDAModel" 9, version 4), the directory's entry count (4), entry 0's id (4) and length (8).
  constexpr std::size_t kKindAt = 4 + 9 + 4 + 4 + 4 + 8;
  struct Case {
    const char* fixture;
    const char* data;
    char stored, written;
    std::string message;
  };
  const Case cases[] = {
      {"wine_pca_v1.mvda", "wine.csv", 1, 2,
       "the file is marked as holding a PLS model but holds a PCA model"},
      {"diabetes_pls_v1.mvda", "diabetes.csv", 2, 1,
       "the file is marked as holding a PCA model but holds a PLS model"},
      {"wine_pca_v1.mvda", "wine.csv", 1, 7,
       "the file is marked as holding a model of unknown kind 7 but holds a PCA model"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.fixture) + " kind " + std::to_string(c.written));
    std::string bytes = ReadBytes(fixtures + c.fixture);
    ASSERT_GT(bytes.size(), kKindAt + 4);
    ASSERT_EQ(bytes.substr(kKindAt, 4), std::string({c.stored, 0, 0, 0}));
    // The untouched file predicts: the edit, not the fixture, is what the tool refuses.
    EXPECT_EQ(RunTool({"predict", fixtures + c.fixture, DataDir() + "/" + c.data}).exit_code, 0);
    bytes[kKindAt] = c.written;
    const std::string edited = dir / "edited.mvda";
    WriteText(edited, bytes);
    const ToolRun run = RunTool({"predict", edited, DataDir() + "/" + c.data});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "mvda: " + edited + ": " + c.message +
                           "; the model file is damaged or was edited\n");
  }
}

}  // namespace
