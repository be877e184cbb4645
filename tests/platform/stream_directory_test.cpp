#include <mvda/platform/byte_io.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream_directory.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/one_way_buf.h"

namespace {

// Both kinds of source a reader meets: a seekable one that tells its length, and a pipe.
struct Source {
  Source(const std::string& bytes, bool seekable)
      : pipe(bytes),
        string(bytes),
        is(seekable ? static_cast<std::streambuf*>(string.rdbuf()) : &pipe) {}
  OneWayBuf pipe;
  std::istringstream string;
  std::istream is;
};

std::uint32_t ReadInt(std::istream* in) {
  std::uint32_t v = 0xdeadbeef;
  if (in) ReadFourBytes(v, *in);
  return v;
}

// Entries 0, 2, 3 and 5 of 6, then a marker after the directory.
std::string SparseDirectory() {
  std::ostringstream os;
  OutputStreamDirectory dir(os, 6);
  WriteFourBytes(std::uint32_t{10}, dir.GetOutput(0));
  WriteBinaryString("an entry this reader skips", dir.GetOutput(2));
  WriteFourBytes(std::uint32_t{30}, dir.GetOutput(3));
  WriteFourBytes(std::uint32_t{31}, dir.GetOutput(3));  // continues entry 3
  OutputStreamDirectory nested(dir.GetOutput(5), 1);
  WriteFourBytes(std::uint32_t{50}, nested.GetOutput(0));
  EXPECT_TRUE(nested.Close());
  EXPECT_TRUE(dir.Close());
  WriteFourBytes(std::uint32_t{0xabcd}, os);
  return os.str();
}

TEST(StreamDirectory, SkipsUnknownEntriesAndReportsMissingOnes) {
  const std::string bytes = SparseDirectory();
  for (const bool seekable : {true, false}) {
    SCOPED_TRACE(seekable);
    Source source(bytes, seekable);
    InputStreamDirectory dir(source.is);
    EXPECT_EQ(ReadInt(dir.GetInput(0)), 10u);
    EXPECT_EQ(dir.GetInput(1), nullptr);
    std::istream* in = dir.GetInput(3);  // entry 2 is skipped unread
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(StreamBytesLeft(*in), 8);
    EXPECT_EQ(ReadInt(in), 30u);
    EXPECT_EQ(ReadInt(dir.GetInput(3)), 31u);  // where entry 3 stood
    EXPECT_EQ(dir.GetInput(4), nullptr);
    InputStreamDirectory nested(*dir.GetInput(5));
    EXPECT_EQ(ReadInt(nested.GetInput(0)), 50u);
    EXPECT_TRUE(nested.Close());
    EXPECT_TRUE(dir.Close());
    EXPECT_EQ(ReadInt(&source.is), 0xabcdu);  // Close left the stream just after the directory
  }
}

TEST(StreamDirectory, ReaderStaysInsideItsEntry) {
  Source source(SparseDirectory(), true);
  InputStreamDirectory dir(source.is);
  std::istream* in = dir.GetInput(0);
  char buffer[8];
  EXPECT_FALSE(ReadBytes(buffer, 8, *in));  // the entry has 4 bytes, entry 2 follows
  EXPECT_EQ(in->gcount(), 4);
  EXPECT_EQ(dir.GetInput(3), nullptr);  // a failed read inside an entry fails the directory
  EXPECT_FALSE(dir.Close());
  EXPECT_TRUE(source.is.fail());
}

TEST(StreamDirectory, RefusesDamagedHeaders) {
  const auto header = [](std::uint32_t id, std::uint64_t length) {
    std::ostringstream os;
    WriteFourBytes(id, os);
    WriteFourBytes(static_cast<std::uint32_t>(length), os);
    WriteFourBytes(static_cast<std::uint32_t>(length >> 32), os);
    return os.str();
  };
  const std::string count1("\x01\0\0\0", 4), count2("\x02\0\0\0", 4), body("abcd");
  struct Case {
    const char* name;
    std::string bytes;
    int ask;
  };
  const Case cases[] = {
      {"count beyond the stream", std::string("\xff\xff\xff\xff", 4), 0},
      {"no header", count1, 0},
      {"length beyond the stream", count1 + header(0, 5) + body, 0},
      {"length above 4 GiB", count1 + header(0, (1ull << 32) + 4) + body, 0},
      {"length above 2^63", count1 + header(0, ~0ull) + body, 0},
      {"id above 2^31", count1 + header(0x80000000u, 4) + body, 0},
      {"ids not ascending", count2 + header(1, 4) + body + header(1, 4) + body, 2},
  };
  for (const Case& c : cases) {
    for (const bool seekable : {true, false}) {
      SCOPED_TRACE(std::string(c.name) + (seekable ? " seekable" : " pipe"));
      Source source(c.bytes, seekable);
      InputStreamDirectory dir(source.is);
      EXPECT_EQ(dir.GetInput(c.ask), nullptr);
      EXPECT_FALSE(dir.Close());
    }
  }
}

// Builds `depth` directories, each the only entry of the one around it.
std::string Nested(int depth) {
  std::string inner("\0\0\0\0", 4);
  for (int level = 1; level < depth; ++level) {
    std::ostringstream os;
    WriteFourBytes(std::uint32_t{1}, os);
    WriteFourBytes(std::uint32_t{0}, os);
    WriteFourBytes(static_cast<std::uint32_t>(inner.size()), os);
    WriteFourBytes(std::uint32_t{0}, os);
    inner = os.str() + inner;
  }
  return inner;
}

bool ReadNested(std::istream& is, int& levels) {
  InputStreamDirectory dir(is);
  ++levels;
  std::istream* in = dir.GetInput(0);
  const bool inner = !in || ReadNested(*in, levels);
  return dir.Close() && inner;
}

void WriteNested(std::ostream& os, int depth) {
  OutputStreamDirectory dir(os, 1);
  if (depth > 1) WriteNested(dir.GetOutput(0), depth - 1);
  dir.Close();
}

TEST(StreamDirectory, BoundsTheNestingDepth) {
  for (const bool seekable : {true, false}) {
    for (const int depth : {kMaxStreamDirectoryDepth, kMaxStreamDirectoryDepth + 1}) {
      SCOPED_TRACE(depth);
      Source source(Nested(depth), seekable);
      int levels = 0;
      EXPECT_EQ(ReadNested(source.is, levels), depth <= kMaxStreamDirectoryDepth);
      EXPECT_EQ(levels, depth);
    }
  }
  std::ostringstream os;
  WriteNested(os, kMaxStreamDirectoryDepth);
  EXPECT_EQ(os.str(), Nested(kMaxStreamDirectoryDepth));
  EXPECT_THROW(WriteNested(os, kMaxStreamDirectoryDepth + 1), NCError);
}

TEST(StreamDirectory, MisuseThrows) {
  std::ostringstream os;
  OutputStreamDirectory out(os, 3);
  EXPECT_THROW(out.GetOutput(3), NCError);
  EXPECT_THROW(out.GetOutput(-1), NCError);
  out.GetOutput(1);
  EXPECT_THROW(out.GetOutput(0), NCError);
  out.Close();
  EXPECT_THROW(out.GetOutput(2), NCError);
  EXPECT_THROW(OutputStreamDirectory(os, -1), NCError);

  std::istringstream is(SparseDirectory());
  InputStreamDirectory in(is);
  EXPECT_THROW(in.GetInput(-1), NCError);
  in.GetInput(2);
  EXPECT_THROW(in.GetInput(0), NCError);
}

}  // namespace
