#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "QvGuid.h"

using Qv::Interop::Runtime30::CGuid;

TEST(Guid, ParsesBytesInTextOrderAndPrintsUpperCase) {
  const CGuid xGuid("{00112233-4455-6677-8899-aabbccddeeff}");
  const uint8_t auExpected[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                  0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  EXPECT_EQ(std::memcmp(xGuid.GetBytes(), auExpected, 16), 0);
  EXPECT_STREQ(xGuid.ToString().ToCString(), "{00112233-4455-6677-8899-AABBCCDDEEFF}");
  EXPECT_EQ(CGuid("00112233-4455-6677-8899-AABBCCDDEEFF"), xGuid);  // braces are optional
  EXPECT_TRUE(xGuid != CGuid("{00112233-4455-6677-8899-AABBCCDDEEFE}"));
  EXPECT_STREQ(CGuid().ToString().ToCString(), "{00000000-0000-0000-0000-000000000000}");
}

TEST(Guid, MalformedTextGivesNull) {
  for (const char* pText : {"", "{", "{}", "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7}",  // short
                            "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F0}",               // long
                            "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7G}",                // not hex
                            "{1D1A0143-63EA-4BE4-AF72+6907ACCF1E7F}",   // wrong separator
                            "{1D1A014-363EA-4BE4-AF72-6907ACCF1E7F}",   // separator misplaced
                            "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F",    // one brace only
                            "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F} ",  // trailing text
                            "1D1A014363EA4BE4AF726907ACCF1E7F"}) {      // no separators
    // From a heap block of exactly the text's size: a read past the end shows in the sanitizer.
    std::unique_ptr<char[]> pCopy(new char[std::strlen(pText) + 1]);
    std::strcpy(pCopy.get(), pText);
    EXPECT_TRUE(CGuid(pCopy.get()).IsNull()) << pText;
  }
  EXPECT_TRUE(CGuid(nullptr).IsNull());
}
