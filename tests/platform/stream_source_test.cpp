#include <mvda/platform/error.h>
#include <mvda/platform/stream_source.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

class FolderStreamSource : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() /
              ("mvda_stream_source_" + std::to_string(std::random_device{}()));
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::size_t FilesInFolder() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder_), fs::directory_iterator()));
  }
  fs::path folder_;
};

TEST_F(FolderStreamSource, WrittenStreamReadsBackUnderItsName) {
  TwFolderStreamSource source(folder_);
  const std::string name = "Dendro_12_3_0123456789abcdef";
  EXPECT_EQ(source.OpenInputStream(name), nullptr);
  const std::string bytes("\x01\0\xff bytes", 9);
  for (const char* pass : {"first", "replaced"}) {
    SCOPED_TRACE(pass);
    auto out = source.OpenOutputStream(name);
    ASSERT_NE(out, nullptr);
    *out << pass << bytes;
    out.reset();
    auto in = source.OpenInputStream(name);
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*in), {}), pass + bytes);
    EXPECT_EQ(FilesInFolder(), 1u);  // no temporary file left behind
  }
}

TEST_F(FolderStreamSource, FailedStreamLeavesNothing) {
  TwFolderStreamSource source(folder_);
  auto out = source.OpenOutputStream("cache");
  *out << "half a tree";
  out->setstate(std::ios::badbit);
  out.reset();
  EXPECT_EQ(source.OpenInputStream("cache"), nullptr);
  EXPECT_EQ(FilesInFolder(), 0u);
}

TEST_F(FolderStreamSource, RefusesNamesThatAreNotPlainFileNames) {
  TwFolderStreamSource source(folder_);
  for (const char* name : {"", ".", "..", "../up", "a/b", "a\\b", "c:x", "a..b", "x.", "x ",
                           "tab\tname", "q?", "p|q", "<x>", "\"x\"", "*"}) {
    SCOPED_TRACE(name);
    EXPECT_THROW(source.OpenInputStream(name), NCError);
    EXPECT_THROW(source.OpenOutputStream(name), NCError);
  }
  EXPECT_FALSE(fs::exists(folder_));  // nothing was created for a refused name
}

}  // namespace
