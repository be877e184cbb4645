#include <mvda/platform/byte_io.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/progress.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(NCErrorTest, CarriesMessageAndLevelThroughStdException) {
  try {
    throw NCError("NCDataVector::SetSize: negative size -3", NCError::kStopRequested);
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "NCDataVector::SetSize: negative size -3");
    EXPECT_EQ(dynamic_cast<const NCError&>(e).GetLevel(), 2);
  }
}

TEST(LanguageStringTest, BuiltInTextsCoverEveryIdAndFormatOneNumber) {
  const int ids[] = {10041, 10047, 10066, 10067, 10068, 10069, 10070, 10071, 10072, 10073,
                     10074, 10147, 10157, 10158, 10159, 10160, 10161, 10162, 10163, 10374};
  for (int id : ids) {
    SCOPED_TRACE(id);
    EXPECT_EQ(LanguageString::Get(id).find("[text id"), std::string::npos);
  }
  EXPECT_NE(LanguageString::Format(10041, 3).find(" 3"), std::string::npos);
  EXPECT_EQ(LanguageString::Get(4711), "[text id 4711]");
}

TEST(LanguageStringTest, HostReplacementIsFormattedAndCanBeUndone) {
  LanguageString::Set(10159, "Komponente %d ist entartet (100%%)");
  EXPECT_EQ(LanguageString::Format(10159, 4), "Komponente 4 ist entartet (100%)");
  // A text with a conversion the library never passes is shown as it stands, never handed to
  // printf with the wrong argument.
  LanguageString::Set(10159, "bad %s");
  EXPECT_EQ(LanguageString::Format(10159, 4), "bad %s");
  LanguageString::ResetToBuiltIn();
  EXPECT_NE(LanguageString::Get(10159), "bad %s");
}

TEST(NCProgressTest, SubRangesMapIntoTheEnclosingRange) {
  NCProgress progress("fit", 0, 10);
  progress.SetValue(5);
  EXPECT_DOUBLE_EQ(progress.Fraction(), 0.5);
  progress.PushSubRange(5, 10);  // the second half of the whole
  progress.SetRange(-4, 0);      // a convergence measure counting up to 0
  progress.SetValue(-1);         // three quarters of the sub-range
  EXPECT_DOUBLE_EQ(progress.Fraction(), 0.5 + 0.75 * 0.5);
  progress.PopSubRange();
  EXPECT_DOUBLE_EQ(progress.Fraction(), 1.0);
  progress.PopSubRange();  // unbalanced: the outer range stays
  EXPECT_DOUBLE_EQ(progress.Fraction(), 1.0);
}

TEST(NCProgressTest, StopRequestsReachSetValueAndIsBreakPressed) {
  NCProgress one, other;
  EXPECT_TRUE(one.SetValue(0.1));
  one.RequestBreak();
  EXPECT_FALSE(one.SetValue(0.2));
  EXPECT_TRUE(one.IsBreakPressed());
  EXPECT_FALSE(other.IsBreakPressed());
  NCProgress::RequestBreakAll();
  EXPECT_TRUE(other.IsBreakPressed());
  NCProgress::ClearBreakAll();
  EXPECT_FALSE(other.IsBreakPressed());
}

TEST(NCProgressTest, HostFactoryMakesTheDefaultReporters) {
  struct Recording : NCProgress {
    using NCProgress::NCProgress;
    int changes = 0;
    void Changed() override { ++changes; }
  };
  std::shared_ptr<Recording> made;
  NCProgress::SetDefaultFactory([&](const std::string& text, double min, double max) {
    made = std::make_shared<Recording>(text, min, max);
    return made;
  });
  auto progress = NCProgress::CreateDefault("component 1", -3, 0);
  progress->SetValue(-1);
  NCProgress::SetDefaultFactory({});
  ASSERT_TRUE(made);
  EXPECT_EQ(progress.get(), made.get());
  EXPECT_EQ(made->GetText(), "component 1");
  EXPECT_EQ(made->changes, 1);
  // With the built-in factory back, and stderr not a terminal under ctest, the reporter is a
  // plain object that still answers stop requests.
  auto plain = NCProgress::CreateDefault("x", 0, 1);
  EXPECT_NE(plain.get(), made.get());
  EXPECT_TRUE(plain->SetValue(0.5));
}

TEST(ByteIoTest, WritesLittleEndianWhateverTheHost) {
  std::ostringstream out;
  ASSERT_TRUE(WriteTwoBytes(std::uint16_t{0x0102}, out));
  ASSERT_TRUE(WriteFourBytes(std::int32_t{-99}, out));
  const double d = 1.0;  // IEEE 754: 0x3FF0000000000000
  ASSERT_TRUE(WriteArray(&d, 1, sizeof d, out));
  ASSERT_TRUE(WriteBinaryString("ab", out));
  const std::string expected(
      "\x02\x01"
      "\x9d\xff\xff\xff"
      "\x00\x00\x00\x00\x00\x00\xf0\x3f"
      "\x02\x00\x00\x00"
      "ab",
      20);
  EXPECT_EQ(out.str(), expected);

  std::istringstream in(expected);
  std::uint16_t two = 0;
  std::int32_t four = 0;
  double back = 0;
  std::string text;
  EXPECT_TRUE(ReadTwoBytes(two, in));
  EXPECT_TRUE(ReadFourBytes(four, in));
  EXPECT_TRUE(ReadArray(&back, 1, sizeof back, in));
  EXPECT_TRUE(ReadBinaryString(text, in));
  EXPECT_EQ(two, 0x0102);
  EXPECT_EQ(four, -99);
  EXPECT_EQ(back, 1.0);
  EXPECT_EQ(text, "ab");
  EXPECT_EQ(StreamBytesLeft(in), 0);
}

TEST(ByteIoTest, ShortOrHostileInputFailsWithoutTouchingTheOutput) {
  std::int32_t four = 7;
  std::istringstream short_in(std::string("\x01\x02", 2));
  EXPECT_FALSE(ReadFourBytes(four, short_in));
  EXPECT_EQ(four, 7);

  // A length of 2^31-1 with three bytes behind it: refused without allocating the length.
  std::string text = "kept";
  std::istringstream huge(
      std::string("\xff\xff\xff\x7f"
                  "abc",
                  7));
  EXPECT_FALSE(ReadBinaryString(text, huge));
  EXPECT_EQ(text, "kept");
  std::istringstream capped(
      std::string("\x05\x00\x00\x00"
                  "hello",
                  9));
  EXPECT_FALSE(ReadBinaryString(text, capped, 4));

  std::ostringstream out;
  const char three[3] = {};
  EXPECT_FALSE(WriteArray(three, 1, 3, out));  // no such element width
  EXPECT_TRUE(out.str().empty());
}

}  // namespace
