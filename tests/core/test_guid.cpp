#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "QvGuid.h"

using Qv::Interop::Runtime30::CGuid;

namespace {

// Parses from a heap block of exactly the text's size, so that a read past the terminator is
// caught by the address sanitizer.
CGuid ParseExact(const char* pText) {
  const size_t uSize = std::strlen(pText) + 1;
  std::unique_ptr<char[]> pCopy(new char[uSize]);
  std::memcpy(pCopy.get(), pText, uSize);
  return CGuid(pCopy.get());
}

}  // namespace

TEST(Guid, DefaultIsNull) {
  const CGuid xGuid;
  EXPECT_TRUE(xGuid.IsNull());
  EXPECT_STREQ(xGuid.ToString().ToCString(), "{00000000-0000-0000-0000-000000000000}");
}

TEST(Guid, ParsesBytesInTextOrder) {
  const CGuid xGuid("{00112233-4455-6677-8899-AABBCCDDEEFF}");
  const uint8_t auExpected[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                  0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  EXPECT_EQ(std::memcmp(xGuid.GetBytes(), auExpected, 16), 0);
  EXPECT_FALSE(xGuid.IsNull());
}

TEST(Guid, RoundTrip) {
  const char* pText = "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}";
  const CGuid xGuid(pText);
  EXPECT_STREQ(xGuid.ToString().ToCString(), pText);
  EXPECT_EQ(CGuid(xGuid.ToString().ToCString()), xGuid);
}

TEST(Guid, LowerCaseAndNoBraces) {
  const CGuid xUpper("{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}");
  const CGuid xLower("{1d1a0143-63ea-4be4-af72-6907accf1e7f}");
  const CGuid xBare("1d1A0143-63EA-4be4-AF72-6907ACCF1E7F");
  EXPECT_EQ(xLower, xUpper);
  EXPECT_EQ(xBare, xUpper);
  EXPECT_STREQ(xLower.ToString().ToCString(), "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}");
}

TEST(Guid, Inequality) {
  const CGuid xFirst("{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}");
  const CGuid xSecond("{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7E}");
  EXPECT_TRUE(xFirst != xSecond);
  EXPECT_FALSE(xFirst == xSecond);
  EXPECT_TRUE(xFirst != CGuid());
}

TEST(Guid, MalformedGivesNull) {
  const char* apBad[] = {
      "",
      "{",
      "{}",
      "{1D1A0143}",
      "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7}",    // one digit short
      "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F0}",  // one digit long
      "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7G}",   // not hex
      "{1D1A0143-63EA-4BE4-AF72+6907ACCF1E7F}",   // wrong separator
      "{1D1A014-363EA-4BE4-AF72-6907ACCF1E7F}",   // separator misplaced
      "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F",    // missing closing brace
      "1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}",    // missing opening brace
      "(1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F)",   // wrong brackets
      "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F} ",  // trailing text
      "1D1A014363EA4BE4AF726907ACCF1E7F",         // no separators
      "{ 1D1A0143-63EA-4BE4-AF72-6907ACCF1E7}",   // blank inside
  };
  for (const char* pText : apBad) {
    EXPECT_TRUE(ParseExact(pText).IsNull()) << pText;
  }
  EXPECT_TRUE(CGuid(nullptr).IsNull());
}
