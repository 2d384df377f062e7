// The text, identity and exception types every failure of the system is reported with.

#include "QvException.h"
#include "QvTestUtil.h"

using namespace Qv;

namespace {

const CGuid kBaseGuid("{6F1B2C4E-2B3A-4F7E-9C1D-5A8E3B7D9E01}");
const CGuid kDerivedGuid("{0A1B2C3D-4E5F-4061-8273-8495A6B7C8D9}");

// A derived exception with its own type.
class CTestException : public CQvException {
 public:
  explicit CTestException(const char* pMessage) : CQvException(pMessage, "d.cpp", "D", 3) {
    m_xGuid = kDerivedGuid;
    m_sName = "Test.Exception";
  }
  IException* Clone() const override { return new CTestException(*this); }
};

int g_iThrowLine = 0;

void ThrowingHelper() {
  g_iThrowLine = __LINE__ + 1;
  QV_THROW("helper failed");
}

}  // namespace

TEST(Exception, ThrowRecordsWhereAndRethrowChainsTheInner) {
  try {
    try {
      ThrowingHelper();
    } catch (const CQvException& xInner) {
      QV_RETHROW("rethrown", xInner);
    }
  } catch (const CQvException& e) {
    EXPECT_EQ(QvTest::Chain(e), "rethrown > helper failed");
    const IException& x = *e.GetInnerException();
    EXPECT_STREQ(x.GetFunction(), "ThrowingHelper");
    EXPECT_NE(std::string(x.GetFile()).find("test_exception.cpp"), std::string::npos);
    EXPECT_EQ(x.GetLine(), g_iThrowLine);
    return;
  }
  FAIL() << "no exception";
}

TEST(Exception, CopiesCloneTheWholeChainAndKeepTypes) {
  std::unique_ptr<CQvException> pOriginal;
  {
    const CTestException xDerived("derived");
    const CQvException xMiddle("middle", "m.cpp", "M", 2, xDerived);
    pOriginal = std::make_unique<CQvException>("outer", "o.cpp", "O", 1, xMiddle);
  }  // the inners given to the constructors are gone
  CQvException xCopy(*pOriginal);
  CQvException xAssigned("other", "x.cpp", "X", 9);
  xAssigned = *pOriginal;
  CQvException& xAlias = xAssigned;
  xAssigned = xAlias;
  std::unique_ptr<IException> pClone(pOriginal->Clone());
  const IException* pOriginalInner = pOriginal->GetInnerException();
  pOriginal.reset();
  const IException* apCopies[] = {&xCopy, &xAssigned, pClone.get()};
  for (const IException* p : apCopies) {
    EXPECT_EQ(QvTest::Chain(*p), "outer > middle > derived");
    EXPECT_NE(p->GetInnerException(), pOriginalInner);
    EXPECT_NE(dynamic_cast<const CTestException*>(p->GetInnerException()->GetInnerException()),
              nullptr);
    EXPECT_TRUE(p->HasException(kDerivedGuid) && p->HasException(kBaseGuid));  // three deep
    EXPECT_FALSE(p->HasException(CGuid()));
  }
  EXPECT_FALSE(CTestException("derived").HasException(kBaseGuid));
}

TEST(Exception, ToStringListsTheChain) {
  const CQvException xBottom("bottom", "b.cpp", "Bottom", 30);
  const CQvException xTop("top", "t.cpp", "Top", 10,
                          CQvException::Create("middle", "m.cpp", "Middle", 20, xBottom));
  EXPECT_STREQ(xTop.ToString(false).ToCString(), "Qv.Exception: top (t.cpp:10, Top)");
  EXPECT_STREQ(xTop.ToString(true).ToCString(),
               "Qv.Exception: top (t.cpp:10, Top)\n"
               "  inner: Qv.Exception: middle (m.cpp:20, Middle)\n"
               "  inner: Qv.Exception: bottom (b.cpp:30, Bottom)");
  EXPECT_STREQ(CTestException("x").ToString(true).ToCString(), "Test.Exception: x (d.cpp:3, D)");
  EXPECT_STREQ(CQvException(nullptr, nullptr, nullptr, 0).ToString(true).ToCString(),
               "Qv.Exception:  (:0, )");
}

TEST(QvString, AppendsNumbersInDecimalAndNullTextAsNothing) {
  CQvString sText(static_cast<const char*>(nullptr));
  EXPECT_TRUE(sText.IsEmpty() && sText == "" && !(sText == "x") && CQvString("ab") != "abc");
  sText << "a=" << 12 << " " << -3 << " " << 4000000000UL << " " << CQvString("x") << " " << 7u
        << " " << -9000000000L << " " << static_cast<const char*>(nullptr) << "|"
        << (-2147483647 - 1) << " " << 18446744073709551615UL << " " << 0.5 << " " << -2.0 << " "
        << 0.1 << " " << 1e20;
  EXPECT_STREQ(sText.ToCString(),
               "a=12 -3 4000000000 x 7 -9000000000 |-2147483648 18446744073709551615 0.5 -2 0.1 "
               "1e+20");
  sText = sText.ToCString() + 80;  // a tail of itself
  sText << sText;
  EXPECT_STREQ((sText + -4).ToCString(), "1e+201e+20-4");
}

TEST(Guid, ParsesBytesInTextOrderPrintsUpperCaseAndRefusesMalformedText) {
  const CGuid xGuid("{00112233-4455-6677-8899-aabbccddeeff}");
  const uint8_t auExpected[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                  0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  EXPECT_EQ(std::memcmp(xGuid.GetBytes(), auExpected, 16), 0);
  EXPECT_STREQ(xGuid.ToString().ToCString(), "{00112233-4455-6677-8899-AABBCCDDEEFF}");
  EXPECT_EQ(CGuid("00112233-4455-6677-8899-AABBCCDDEEFF"), xGuid);  // braces are optional
  EXPECT_TRUE(xGuid != CGuid("{00112233-4455-6677-8899-AABBCCDDEEFE}"));
  // Empty, short, long, not hex, a separator misplaced, one brace only, trailing text.
  for (const char* pText :
       {"", "{}", "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7}",
        "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F0}", "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7G}",
        "{1D1A014-363EA-4BE4-AF72-6907ACCF1E7F}", "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F",
        "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F} "}) {
    // From a heap block of exactly the text's size: a read past the end shows in the sanitizer.
    std::unique_ptr<char[]> pCopy(new char[std::strlen(pText) + 1]);
    std::strcpy(pCopy.get(), pText);
    EXPECT_TRUE(CGuid(pCopy.get()).IsNull()) << pText;
  }
  EXPECT_TRUE(CGuid(nullptr).IsNull());
  EXPECT_STREQ(CGuid().ToString().ToCString(), "{00000000-0000-0000-0000-000000000000}");
}
