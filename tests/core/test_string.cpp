#include <gtest/gtest.h>

#include "QvString.h"

using Qv::CQvString;

TEST(QvString, AppendsNumbersInDecimalAndNullTextAsNothing) {
  CQvString sText(static_cast<const char*>(nullptr));
  EXPECT_TRUE(sText.IsEmpty());
  sText << "a=" << 12 << " " << -3 << " " << 4000000000UL << " " << CQvString("x") << " " << 7u
        << " " << -9000000000L << " " << static_cast<const char*>(nullptr) << "|"
        << (-2147483647 - 1) << " " << 18446744073709551615UL << " " << 0.5 << " " << -2.0 << " "
        << 0.1 << " " << 1e20;
  EXPECT_STREQ(sText.ToCString(),
               "a=12 -3 4000000000 x 7 -9000000000 |-2147483648 18446744073709551615 0.5 -2 0.1 "
               "1e+20");
  EXPECT_EQ(sText.GetLength(), 85u);
  sText = sText.ToCString() + 80;  // a tail of itself
  sText << sText;
  EXPECT_STREQ(sText.ToCString(), "1e+201e+20");
  EXPECT_STREQ((CQvString("frame") + -4).ToCString(), "frame-4");
}

TEST(QvString, Equality) {
  const CQvString sText("abc");
  EXPECT_TRUE(sText == "abc" && sText == CQvString("abc"));
  EXPECT_TRUE(sText != "ab" && sText != "abcd" && sText != CQvString("ABC"));
  EXPECT_TRUE(CQvString() == static_cast<const char*>(nullptr));
  EXPECT_FALSE(sText == static_cast<const char*>(nullptr));
}
