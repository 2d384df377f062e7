#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "QvException.h"

using Qv::CGuid;
using Qv::CQvException;
using Qv::IException;

namespace {

const CGuid kBaseGuid("{6F1B2C4E-2B3A-4F7E-9C1D-5A8E3B7D9E01}");
const CGuid kDerivedGuid("{0A1B2C3D-4E5F-4061-8273-8495A6B7C8D9}");

// A derived exception with its own type that extends the message before each throw.
class CTestException : public CQvException {
 public:
  explicit CTestException(const char* pMessage) : CQvException(pMessage, "d.cpp", "D", 3) {
    m_xGuid = kDerivedGuid;
    m_sName = "Test.Exception";
  }
  IException* Clone() const override { return new CTestException(*this); }
  void SetExceptionData() override { AppendToMessage(" [extra]"); }
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
    FAIL() << "no exception";
  } catch (const CQvException& e) {
    EXPECT_STREQ(e.GetMessageText(), "rethrown");
    EXPECT_STREQ(e.GetName(), "Qv.Exception");
    EXPECT_EQ(e.GetGUID(), kBaseGuid);
    const IException* pInner = e.GetInnerException();
    ASSERT_NE(pInner, nullptr);
    EXPECT_STREQ(pInner->GetMessageText(), "helper failed");
    EXPECT_STREQ(pInner->GetFunction(), "ThrowingHelper");
    EXPECT_TRUE(std::string(pInner->GetFile()).find("test_exception.cpp") != std::string::npos);
    EXPECT_EQ(pInner->GetLine(), g_iThrowLine);
    EXPECT_EQ(pInner->GetInnerException(), nullptr);
  }
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
    EXPECT_STREQ(p->GetMessageText(), "outer");
    ASSERT_NE(p->GetInnerException(), nullptr);
    EXPECT_NE(p->GetInnerException(), pOriginalInner);
    EXPECT_STREQ(p->GetInnerException()->GetMessageText(), "middle");
    const IException* pBottom = p->GetInnerException()->GetInnerException();
    ASSERT_NE(pBottom, nullptr);
    EXPECT_NE(dynamic_cast<const CTestException*>(pBottom), nullptr);
    EXPECT_TRUE(p->HasException(kDerivedGuid));  // found three deep
    EXPECT_TRUE(p->HasException(kBaseGuid));
    EXPECT_FALSE(p->HasException(CGuid()));
  }
  CTestException xDerived("derived");
  EXPECT_FALSE(xDerived.HasException(kBaseGuid));
  xDerived.SetExceptionData();
  EXPECT_STREQ(xDerived.GetMessageText(), "derived [extra]");
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
