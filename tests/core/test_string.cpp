#include <gtest/gtest.h>

#include "QvString.h"

using Qv::CQvString;

TEST(QvString, NullIsEmptyAndCopiesAreIndependent) {
  CQvString sNull(static_cast<const char*>(nullptr));
  EXPECT_TRUE(sNull.IsEmpty());
  EXPECT_STREQ(sNull.ToCString(), "");
  CQvString sText("abc");
  CQvString sCopy(sText);
  sText = "changed";
  EXPECT_STREQ(sCopy.ToCString(), "abc");
  sText = sText.ToCString() + 2;  // a tail of itself
  EXPECT_STREQ(sText.ToCString(), "anged");
  sText << sText;
  EXPECT_STREQ(sText.ToCString(), "angedanged");
}

TEST(QvString, AppendWritesNumbersInDecimal) {
  CQvString sText;
  sText << "a=" << 12 << " " << -3 << " " << 4000000000UL << " " << CQvString("x") << " " << 7u
        << " " << -9000000000L << " " << static_cast<const char*>(nullptr) << "|"
        << (-2147483647 - 1) << " " << 18446744073709551615UL << " " << 0.5 << " " << -2.0 << " "
        << 0.1 << " " << 1e20;
  EXPECT_STREQ(sText.ToCString(),
               "a=12 -3 4000000000 x 7 -9000000000 |-2147483648 18446744073709551615 0.5 -2 0.1 "
               "1e+20");
  EXPECT_EQ(sText.GetLength(), 85u);
  EXPECT_STREQ((CQvString("frame") + -4).ToCString(), "frame-4");
}

TEST(QvString, Equality) {
  const CQvString sText("abc");
  EXPECT_TRUE(sText == "abc");
  EXPECT_FALSE(sText == "ab");
  EXPECT_TRUE(sText != "abcd");
  EXPECT_TRUE(sText != CQvString("ABC"));
  EXPECT_TRUE(CQvString() == static_cast<const char*>(nullptr));
  EXPECT_FALSE(sText == static_cast<const char*>(nullptr));
}
