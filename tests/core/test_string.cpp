#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "QvString.h"

using Qv::CQvString;

TEST(QvString, DefaultAndNullAreEmpty) {
  CQvString sDefault;
  EXPECT_TRUE(sDefault.IsEmpty());
  EXPECT_EQ(sDefault.GetLength(), 0u);
  EXPECT_STREQ(sDefault.ToCString(), "");

  CQvString sNull(static_cast<const char*>(nullptr));
  EXPECT_TRUE(sNull.IsEmpty());
  EXPECT_STREQ(sNull.ToCString(), "");
}

TEST(QvString, ConstructCopyAssign) {
  CQvString sText("abc");
  EXPECT_EQ(sText.GetLength(), 3u);
  EXPECT_FALSE(sText.IsEmpty());
  CQvString sCopy(sText);
  sText = "changed";
  EXPECT_STREQ(sCopy.ToCString(), "abc");
  EXPECT_STREQ(sText.ToCString(), "changed");
  sCopy = sText;
  EXPECT_STREQ(sCopy.ToCString(), "changed");
  sCopy = static_cast<const char*>(nullptr);
  EXPECT_TRUE(sCopy.IsEmpty());
  sText = sText.ToCString() + 2;  // assigning a tail of itself
  EXPECT_STREQ(sText.ToCString(), "anged");
}

TEST(QvString, AppendChains) {
  CQvString sText;
  sText << "a=" << 12 << ", b=" << -3 << ", c=" << 4000000000UL << ", d=" << CQvString("x")
        << ", e=" << 7u << ", f=" << -9000000000L << ", g=" << static_cast<const char*>(nullptr)
        << "|";
  EXPECT_STREQ(sText.ToCString(), "a=12, b=-3, c=4000000000, d=x, e=7, f=-9000000000, g=|");
  EXPECT_EQ(sText.GetLength(),
            std::strlen("a=12, b=-3, c=4000000000, d=x, e=7, f=-9000000000, g=|"));
}

TEST(QvString, AppendExtremeIntegers) {
  CQvString sText;
  sText << (-2147483647 - 1) << " " << 2147483647 << " " << 18446744073709551615UL;
  EXPECT_STREQ(sText.ToCString(), "-2147483648 2147483647 18446744073709551615");
}

TEST(QvString, AppendDouble) {
  CQvString sText;
  sText << 0.5 << " " << -2.0 << " " << 0.1 << " " << 1e20;
  EXPECT_STREQ(sText.ToCString(), "0.5 -2 0.1 1e+20");
}

TEST(QvString, AppendSelf) {
  CQvString sText("ab");
  sText << sText;
  EXPECT_STREQ(sText.ToCString(), "abab");
}

TEST(QvString, PlusNumber) {
  const CQvString sBase("frame");
  EXPECT_STREQ((sBase + 17).ToCString(), "frame17");
  EXPECT_STREQ((sBase + -4).ToCString(), "frame-4");
  EXPECT_STREQ((sBase + 0).ToCString(), "frame0");
  EXPECT_STREQ(sBase.ToCString(), "frame");
}

TEST(QvString, Equality) {
  const CQvString sText("abc");
  EXPECT_TRUE(sText == "abc");
  EXPECT_FALSE(sText == "abd");
  EXPECT_FALSE(sText == "ab");
  EXPECT_TRUE(sText != "abcd");
  EXPECT_TRUE(sText == CQvString("abc"));
  EXPECT_TRUE(sText != CQvString("ABC"));
  EXPECT_TRUE(CQvString() == static_cast<const char*>(nullptr));
  EXPECT_TRUE(CQvString() == "");
  EXPECT_FALSE(sText == static_cast<const char*>(nullptr));
}
