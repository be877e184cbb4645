#include <mvda/containers/integral_vector.h>
#include <mvda/containers/string_vector.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream.h>
#include <mvda/platform/stream_directory.h>

#include <cstdint>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

NCStringVector Make(const std::vector<std::string>& items) {
  return NCStringVector(std::vector<CString>(items.begin(), items.end()));
}

std::vector<std::string> Items(const NCStringVector& v) {
  return std::vector<std::string>(v.begin(), v.end());
}

NCIntegralVector<int, -99> Positions(const std::vector<int>& p) {
  return NCIntegralVector<int, -99>(p.data(), static_cast<int>(p.size()));
}

TEST(StringVectorSearch, FindStringFollowsTheCaseRuleAndStart) {
  const NCStringVector v = Make({"x", "ABC", "abc", "\xC4"});
  EXPECT_EQ(v.FindString("abc", false, 1), 2);  // "ABC" folds to "abc"
  EXPECT_EQ(v.FindString("abc", true, 1), 3);
  EXPECT_EQ(v.FindString("abc", false, 3), 3);
  EXPECT_EQ(v.FindString("abc", true, 5), 0);    // start beyond the end
  EXPECT_EQ(v.FindString("x", true, -4), 1);     // a start below 1 searches from 1
  EXPECT_EQ(v.FindString("\xE4", false, 1), 0);  // bytes above 127 are not folded
  EXPECT_EQ(v.FindString("ab", false, 1), 0);
  EXPECT_THROW(v.FindString(nullptr, true, 1), NCError);
}

// Expected orders by hand from the byte values: 'X' 0x58 < '_' 0x5F < 'a'..'z' 0x61..0x7A, and
// for natural order the digit runs read as numbers, "x01" before "x1" by the plain tie-break.
TEST(StringVectorSearch, SortOrdersAndSearchesAgree) {
  struct Case {
    const char* name;
    bool ascending, case_sensitive, natural;
    std::vector<std::string> sorted;
  };
  const std::vector<std::string> input = {"x10", "x2", "y", "x1", "X3", "x", "x01", "_a"};
  const Case cases[] = {
      {"plain", true, true, false, {"X3", "_a", "x", "x01", "x1", "x10", "x2", "y"}},
      {"no case", true, false, false, {"_a", "x", "x01", "x1", "x10", "x2", "X3", "y"}},
      {"natural", true, true, true, {"X3", "_a", "x", "x01", "x1", "x2", "x10", "y"}},
      {"natural, no case", true, false, true, {"_a", "x", "x01", "x1", "x2", "X3", "x10", "y"}},
      {"descending natural", false, false, true, {"y", "x10", "X3", "x2", "x1", "x01", "x", "_a"}},
      {"descending", false, true, false, {"y", "x2", "x10", "x1", "x01", "x", "_a", "X3"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NCStringVector v = Make(input);
    v.Sort(c.ascending, c.case_sensitive, c.natural);
    EXPECT_EQ(Items(v), c.sorted);
    for (int i = 1; i <= v.Size(); ++i) {
      EXPECT_EQ(v.FindSortedString(v[i].c_str(), c.ascending, c.case_sensitive, c.natural), i);
    }
    // "z" sorts after everything ascending (before everything descending): its insertion point
    // is past the end ascending, so it is neither found nor placed.
    const int end_pos = v.SortedStringPos("z", c.ascending, c.case_sensitive, c.natural);
    EXPECT_EQ(end_pos, c.ascending ? 0 : 1);
    EXPECT_EQ(v.FindSortedString("z", c.ascending, c.case_sensitive, c.natural), 0);
    const int at = v.SortedInsert("x3", c.ascending, c.case_sensitive, c.natural);
    EXPECT_EQ(v[at], "x3");
    NCStringVector resorted = v;
    resorted.Sort(c.ascending, c.case_sensitive, c.natural);
    EXPECT_EQ(Items(resorted), Items(v));  // the insert kept the order
  }
}

// A comparator that is not a strict weak order makes std::sort misbehave silently, so each of
// the eight orders is checked over strings that stress digit runs, case and high bytes. Less is
// observed through a one-element vector: SortedStringPos(b) is 0 exactly when a sorts before b.
TEST(StringVectorSearch, EveryOrderIsAStrictWeakOrder) {
  const std::vector<std::string> s = {"",     "0",  "00",  "9",   "10",  "a",    "A",   "a1",
                                      "a01",  "A1", "a10", "a9b", "a9B", "a09b", "a_",  "a/",
                                      "\xE9", "1a", "01a", "a1a", "a1z", "ab",   "a00", "a0"};
  for (int flags = 0; flags < 8; ++flags) {
    const bool ascending = flags & 1, case_sensitive = flags & 2, natural = flags & 4;
    SCOPED_TRACE(flags);
    const std::size_t n = s.size();
    std::vector<std::vector<bool>> less(n, std::vector<bool>(n));
    for (std::size_t a = 0; a < n; ++a) {
      for (std::size_t b = 0; b < n; ++b) {
        less[a][b] =
            Make({s[a]}).SortedStringPos(s[b].c_str(), ascending, case_sensitive, natural) == 0;
      }
    }
    for (std::size_t a = 0; a < n; ++a) {
      for (std::size_t b = 0; b < n; ++b) {
        // Equivalent exactly when equal under the case rule, which FindSortedString relies on.
        const bool equal = case_sensitive ? CString(s[a]).Compare(s[b]) == 0
                                          : CString(s[a]).CompareNoCase(s[b]) == 0;
        EXPECT_EQ(!less[a][b] && !less[b][a], equal) << s[a] << " / " << s[b];
        for (std::size_t c = 0; c < n; ++c) {
          if (less[a][b] && less[b][c]) {
            EXPECT_TRUE(less[a][c]) << s[a] << " < " << s[b] << " < " << s[c];
          }
        }
      }
    }
  }
}

TEST(StringVectorOrder, SortWithOriginalIndexIsStable) {
  NCStringVector v = Make({"b", "B", "a", "b"});
  std::vector<int> positions;
  v.SortWithOriginalIndex(true, false, positions);
  EXPECT_EQ(Items(v), (std::vector<std::string>{"a", "b", "B", "b"}));
  EXPECT_EQ(positions, (std::vector<int>{3, 1, 2, 4}));
}

TEST(StringVectorSharing, WritesToACopyLeaveTheSource) {
  const NCStringVector source = Make({"c", "a", "b", "a"});
  const std::vector<std::string> before = Items(source);
  const std::vector<std::function<void(NCStringVector&)>> writes = {
      [](NCStringVector& v) { v.Sort(); },
      [](NCStringVector& v) {
        std::vector<int> p;
        v.SortWithOriginalIndex(false, true, p);
      },
      [](NCStringVector& v) { v(2, "z"); },
      [](NCStringVector& v) { EXPECT_EQ(v.RemoveString("A", false), 2); },
      [](NCStringVector& v) { v.SortedInsert("b"); },
      [](NCStringVector& v) { v.Remove(Positions({1})); },
  };
  for (std::size_t k = 0; k < writes.size(); ++k) {
    SCOPED_TRACE(k);
    NCStringVector copy = source;
    writes[k](copy);
    EXPECT_EQ(Items(source), before);
    EXPECT_TRUE(copy != source);
  }
}

TEST(StringVectorEditing, RangesClipAndPositionsAreChecked) {
  using Strings = std::vector<std::string>;
  struct Case {
    const char* name;
    std::function<void(NCStringVector&)> edit;
    Strings expected;
  };
  const Case cases[] = {
      {"insert empties", [](NCStringVector& v) { v.InsertStrings(2, 2); }, {"a", "", "", "b", "c"}},
      {"append past end",
       [](NCStringVector& v) { v.InsertStrings(9, 1, "z"); },
       {"a", "b", "c", "z"}},
      {"prepend", [](NCStringVector& v) { v.InsertStrings(-3, 1, "z"); }, {"z", "a", "b", "c"}},
      {"append n", [](NCStringVector& v) { v.InsertStrings(1); }, {"a", "b", "c", ""}},
      {"insert own element",
       [](NCStringVector& v) { v.InsertStrings(1, 2, v[3]); },
       {"c", "c", "a", "b", "c"}},
      {"remove clipped", [](NCStringVector& v) { v.RemoveStrings(2, 9); }, {"a"}},
      {"remove before 1", [](NCStringVector& v) { v.RemoveStrings(0, 2); }, {"b", "c"}},
      {"remove listed",
       [](NCStringVector& v) {
         v.Remove(Positions({3, 1, 3}));
       },
       {"b"}},
      {"reduce reorders",
       [](NCStringVector& v) {
         v.Reduce(Positions({3, 1, 3}));
       },
       {"c", "a", "c"}},
      {"concat itself", [](NCStringVector& v) { v.Concat(v); }, {"a", "b", "c", "a", "b", "c"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NCStringVector v = Make({"a", "b", "c"});
    c.edit(v);
    EXPECT_EQ(Items(v), c.expected);
  }

  NCStringVector v = Make({"a", "b", "c"});
  const std::vector<std::function<void()>> refused = {
      [&] { v.InsertStrings(1, -1); },
      [&] { v.RemoveStrings(1, -2); },
      [&] { v.Reserve(-1); },
      [&] {
        v.Remove(Positions({2, 4}));
      },
      [&] { v.Reduce(Positions({0})); },
      [&] { v.RemoveString(nullptr, true); },
      [] { NCStringVector(-1); },
  };
  for (const auto& call : refused) EXPECT_THROW(call(), NCError);
  EXPECT_EQ(Items(v), (Strings{"a", "b", "c"}));
}

// ---------------------------------------------------------------------------------------------
// Stream

std::string Bytes(const NCStringVector& v) {
  std::ostringstream os;
  EXPECT_TRUE(StreamOut(v, os));
  return os.str();
}

// Record "NCSV" with the given version, then a one-entry directory holding `entry` (or, with
// `has_entry` false, a directory whose entry 0 is absent).
std::string Stream(std::int32_t version, const std::string& entry, bool has_entry = true) {
  UStreamableData record("NCSV", version);
  std::ostringstream os;
  record.Write(os);
  OutputStreamDirectory dir(os, 1);
  if (has_entry) WriteBytes(entry.data(), entry.size(), dir.GetOutput(0));
  EXPECT_TRUE(dir.Close());
  return os.str();
}

// Reads into a vector that holds something, so that a failed read is seen to clear it.
bool Read(const std::string& bytes, NCStringVector& v) {
  v = Make({"stale"});
  std::istringstream is(bytes);
  return StreamIn(v, is);
}

// Count 2 (little-endian), then "ab" and "" each as a 4-byte length and the bytes.
const std::string kEntry("\x02\0\0\0\x02\0\0\0ab\0\0\0\0", 14);

TEST(StringVectorStream, WritesTheEntryByteForByteAndReadsItBack) {
  EXPECT_EQ(Bytes(Make({"ab", ""})), Stream(2, kEntry));
  for (const std::vector<std::string>& items :
       {std::vector<std::string>{}, {"ab", ""}, {std::string("n\0ul", 4), "\xFF\xE9", "Run 10"}}) {
    NCStringVector v;
    EXPECT_TRUE(Read(Bytes(Make(items)), v));
    EXPECT_EQ(Items(v), items);
  }
}

TEST(StringVectorStream, RefusesOtherVersionsAndDamage) {
  struct Case {
    const char* name;
    std::string bytes;
  };
  const Case cases[] = {
      {"version 1", Stream(1, kEntry)},
      {"version 3", Stream(3, kEntry)},
      {"count beyond the entry", Stream(2, std::string("\xFF\xFF\xFF\x7F\0\0\0\0", 8))},
      {"negative count", Stream(2, std::string("\xFF\xFF\xFF\xFF", 4))},
      {"string beyond the entry", Stream(2, std::string("\x01\0\0\0\x10\0\0\0ab", 10))},
      {"bytes after the strings", Stream(2, kEntry + "x")},
      {"no entry", Stream(2, "", false)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NCStringVector v;
    EXPECT_FALSE(Read(c.bytes, v));
    EXPECT_TRUE(v.empty());
  }
}

TEST(StringVectorStream, EveryTruncationFailsAndClears) {
  const std::string bytes = Bytes(Make({"alpha", "", "B"}));
  for (std::size_t k = 0; k < bytes.size(); ++k) {
    SCOPED_TRACE(k);
    NCStringVector v;
    EXPECT_FALSE(Read(bytes.substr(0, k), v));
    EXPECT_TRUE(v.empty());
  }
}

TEST(StringVectorStream, FlippedBytesFailCleanOrReadStrings) {
  const std::string bytes = Bytes(Make({"alpha", "", "B"}));
  std::mt19937 random(20240611);
  std::uniform_int_distribution<std::size_t> at(0, bytes.size() - 1);
  std::uniform_int_distribution<int> bit(0, 7);
  int refused = 0;
  for (int trial = 0; trial < 2000; ++trial) {
    std::string damaged = bytes;
    for (int flips = 1 + trial % 3; flips > 0; --flips)
      damaged[at(random)] ^= char(1 << bit(random));
    NCStringVector v;
    if (!Read(damaged, v)) {
      ++refused;
      EXPECT_TRUE(v.empty());
    }
  }
  EXPECT_GT(refused, 0);  // most bytes are lengths, counts and record fields
}

}  // namespace
