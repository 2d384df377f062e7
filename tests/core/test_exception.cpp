#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "QvException.h"

using Qv::CGuid;
using Qv::CQvException;
using Qv::CQvString;
using Qv::IException;

namespace {

const char* kBaseGuidText = "{6F1B2C4E-2B3A-4F7E-9C1D-5A8E3B7D9E01}";
const char* kDerivedGuidText = "{0A1B2C3D-4E5F-4061-8273-8495A6B7C8D9}";

// A derived exception that records its own type and extends the message before each throw.
class CTestException : public CQvException {
 public:
  CTestException(const char* pMessage, const char* pFile, const char* pFunction, int iLine)
      : CQvException(pMessage, pFile, pFunction, iLine) {
    m_xGuid = CGuid(kDerivedGuidText);
    m_sName = "Test.Exception";
  }
  IException* Clone() const override { return new CTestException(*this); }
  void SetExceptionData() override { AppendToMessage(" [extra]"); }
};

// An exception implemented directly on the interface, as another module might.
class CForeignException : public IException {
 public:
  explicit CForeignException(int* pLiveCount) : m_pLiveCount(pLiveCount) { ++*m_pLiveCount; }
  CForeignException(const CForeignException& xOther) : IException(xOther) {
    m_pLiveCount = xOther.m_pLiveCount;
    ++*m_pLiveCount;
  }
  ~CForeignException() override { --*m_pLiveCount; }
  const char* GetMessageText() const override { return "foreign"; }
  const char* GetFunction() const override { return nullptr; }
  const char* GetFile() const override { return nullptr; }
  int GetLine() const override { return 7; }
  const char* GetName() const override { return nullptr; }
  const CGuid& GetGUID() const override { return m_xGuid; }
  const IException* GetInnerException() const override { return nullptr; }
  bool HasException(const CGuid& xGuid) const override { return xGuid == m_xGuid; }
  IException* Clone() const override { return new CForeignException(*this); }

 private:
  CGuid m_xGuid{"{11111111-2222-3333-4444-555555555555}"};
  int* m_pLiveCount;
};

int g_iThrowLine = 0;

void ThrowingHelper() {
  g_iThrowLine = __LINE__ + 1;
  QV_THROW("helper failed");
}

void RethrowingHelper() {
  try {
    ThrowingHelper();
  } catch (const CQvException& xInner) {
    QV_RETHROW("rethrown", xInner);
  }
}

bool EndsWith(const char* pText, const char* pTail) {
  const size_t uText = std::strlen(pText);
  const size_t uTail = std::strlen(pTail);
  return uText >= uTail && std::strcmp(pText + uText - uTail, pTail) == 0;
}

}  // namespace

TEST(Exception, FieldsAndType) {
  const CQvException xException("message", "file.cpp", "Function", 42);
  EXPECT_STREQ(xException.GetMessageText(), "message");
  EXPECT_STREQ(xException.GetFile(), "file.cpp");
  EXPECT_STREQ(xException.GetFunction(), "Function");
  EXPECT_EQ(xException.GetLine(), 42);
  EXPECT_STREQ(xException.GetName(), "Qv.Exception");
  EXPECT_STREQ(CQvException::GetTypeName(), "Qv.Exception");
  EXPECT_EQ(xException.GetGUID(), CGuid(kBaseGuidText));
  EXPECT_EQ(CQvException::GetTypeGUID(), CGuid(kBaseGuidText));
  EXPECT_EQ(xException.GetInnerException(), nullptr);
  EXPECT_TRUE(xException.HasException(CGuid(kBaseGuidText)));
  EXPECT_FALSE(xException.HasException(CGuid(kDerivedGuidText)));
  EXPECT_FALSE(xException.HasException(CGuid()));
}

TEST(Exception, NullArgumentsAreSafe) {
  const CQvException xException(nullptr, nullptr, nullptr, 0);
  EXPECT_STREQ(xException.GetMessageText(), "");
  EXPECT_STREQ(xException.GetFile(), "");
  EXPECT_STREQ(xException.GetFunction(), "");
  EXPECT_STREQ(xException.ToString(true).ToCString(), "Qv.Exception:  (:0, )");
}

TEST(Exception, ThrowRecordsLocation) {
  try {
    ThrowingHelper();
    FAIL() << "no exception";
  } catch (const CQvException& xException) {
    EXPECT_STREQ(xException.GetMessageText(), "helper failed");
    EXPECT_STREQ(xException.GetFunction(), "ThrowingHelper");
    EXPECT_TRUE(EndsWith(xException.GetFile(), "test_exception.cpp")) << xException.GetFile();
    EXPECT_EQ(xException.GetLine(), g_iThrowLine);
    EXPECT_EQ(xException.GetInnerException(), nullptr);
  }
}

TEST(Exception, RethrowChainsInner) {
  try {
    RethrowingHelper();
    FAIL() << "no exception";
  } catch (const CQvException& xException) {
    EXPECT_STREQ(xException.GetMessageText(), "rethrown");
    EXPECT_STREQ(xException.GetFunction(), "RethrowingHelper");
    const IException* pInner = xException.GetInnerException();
    ASSERT_NE(pInner, nullptr);
    EXPECT_STREQ(pInner->GetMessageText(), "helper failed");
    EXPECT_STREQ(pInner->GetFunction(), "ThrowingHelper");
    EXPECT_EQ(pInner->GetLine(), g_iThrowLine);
    EXPECT_EQ(pInner->GetInnerException(), nullptr);
  }
}

TEST(Exception, CopiedAfterCatchKeepsInnerAlive) {
  // Each level keeps only a copy of what it caught; the thrown objects are destroyed at the end
  // of their catch blocks, before the copies are read.
  std::optional<CQvException> xKept;
  try {
    try {
      QV_THROW("level 3");
    } catch (const CQvException& xThird) {
      std::optional<CQvException> xThirdCopy(xThird);
      try {
        QV_RETHROW("level 2", *xThirdCopy);
      } catch (const CQvException& xSecond) {
        xThirdCopy.reset();
        QV_RETHROW("level 1", xSecond);
      }
    }
  } catch (const CQvException& xFirst) {
    xKept.emplace(xFirst);
  }
  ASSERT_TRUE(xKept.has_value());
  CQvException xCopy = *xKept;
  *xKept = CQvException("replaced", "x", "y", 1);  // the copy must not share with the original
  EXPECT_STREQ(xCopy.GetMessageText(), "level 1");
  const IException* pSecond = xCopy.GetInnerException();
  ASSERT_NE(pSecond, nullptr);
  EXPECT_STREQ(pSecond->GetMessageText(), "level 2");
  const IException* pThird = pSecond->GetInnerException();
  ASSERT_NE(pThird, nullptr);
  EXPECT_STREQ(pThird->GetMessageText(), "level 3");
  EXPECT_EQ(pThird->GetInnerException(), nullptr);
  EXPECT_EQ(xKept->GetInnerException(), nullptr);
  xKept.reset();
  EXPECT_STREQ(xCopy.GetInnerException()->GetInnerException()->GetMessageText(), "level 3");
}

TEST(Exception, CopyOutlivesOriginal) {
  std::unique_ptr<CQvException> pOriginal;
  {
    const CQvException xInner("inner", "in.cpp", "In", 5);
    pOriginal = std::make_unique<CQvException>("outer", "out.cpp", "Out", 6, xInner);
  }  // the inner given to the constructor is gone
  CQvException xCopy(*pOriginal);
  CQvException xAssigned("other", "o.cpp", "O", 1);
  xAssigned = *pOriginal;
  const IException* pOriginalInner = pOriginal->GetInnerException();
  pOriginal.reset();
  for (const CQvException* pException : {&xCopy, &xAssigned}) {
    EXPECT_STREQ(pException->GetMessageText(), "outer");
    const IException* pInner = pException->GetInnerException();
    ASSERT_NE(pInner, nullptr);
    EXPECT_NE(pInner, pOriginalInner);
    EXPECT_STREQ(pInner->GetMessageText(), "inner");
    EXPECT_STREQ(pInner->GetFile(), "in.cpp");
    EXPECT_STREQ(pInner->GetFunction(), "In");
    EXPECT_EQ(pInner->GetLine(), 5);
  }
}

TEST(Exception, SelfAssignment) {
  const CQvException xInner("inner", "in.cpp", "In", 5);
  CQvException xOuter("outer", "out.cpp", "Out", 6, xInner);
  CQvException& xAlias = xOuter;
  xOuter = xAlias;
  ASSERT_NE(xOuter.GetInnerException(), nullptr);
  EXPECT_STREQ(xOuter.GetInnerException()->GetMessageText(), "inner");
}

TEST(Exception, HasExceptionSearchesChain) {
  const CQvException xBottom("bottom", "b.cpp", "B", 1);
  CTestException xMiddle("middle", "m.cpp", "M", 2);
  const CQvException xMiddleWrapped = CQvException::Create("wrap", "w.cpp", "W", 3, xBottom);
  const CQvException xTop("top", "t.cpp", "T", 4, xMiddle);

  EXPECT_TRUE(xTop.HasException(CGuid(kDerivedGuidText)));
  EXPECT_TRUE(xTop.HasException(CGuid(kBaseGuidText)));
  EXPECT_FALSE(xTop.HasException(CGuid("{99999999-9999-9999-9999-999999999999}")));
  EXPECT_TRUE(xMiddle.HasException(CGuid(kDerivedGuidText)));
  EXPECT_FALSE(xMiddle.HasException(CGuid(kBaseGuidText)));
  EXPECT_FALSE(xMiddleWrapped.HasException(CGuid(kDerivedGuidText)));

  // Three deep: the derived type only at the bottom.
  CTestException xDerivedBottom("deep", "d.cpp", "D", 9);
  const CQvException xLevel2("l2", "2.cpp", "L2", 2, xDerivedBottom);
  const CQvException xLevel1("l1", "1.cpp", "L1", 1, xLevel2);
  EXPECT_TRUE(xLevel1.HasException(CGuid(kDerivedGuidText)));
}

TEST(Exception, DerivedTypeThroughBase) {
  CTestException xDerived("derived", "d.cpp", "D", 3);
  const IException& xInterface = xDerived;
  EXPECT_STREQ(xInterface.GetName(), "Test.Exception");
  EXPECT_EQ(xInterface.GetGUID(), CGuid(kDerivedGuidText));
  xDerived.SetExceptionData();
  EXPECT_STREQ(xDerived.GetMessageText(), "derived [extra]");
}

TEST(Exception, CloneIsDeepAndKeepsType) {
  CTestException xDerived("derived", "d.cpp", "D", 3);
  auto pOuter = std::make_unique<CQvException>("outer", "o.cpp", "O", 4, xDerived);
  std::unique_ptr<IException> pClone(pOuter->Clone());
  const IException* pOriginalInner = pOuter->GetInnerException();
  ASSERT_NE(pOriginalInner, nullptr);
  ASSERT_NE(pClone->GetInnerException(), nullptr);
  EXPECT_NE(pClone->GetInnerException(), pOriginalInner);
  pOuter.reset();

  EXPECT_STREQ(pClone->GetMessageText(), "outer");
  EXPECT_STREQ(pClone->GetName(), "Qv.Exception");
  const IException* pInner = pClone->GetInnerException();
  EXPECT_STREQ(pInner->GetMessageText(), "derived");
  EXPECT_STREQ(pInner->GetName(), "Test.Exception");
  EXPECT_NE(dynamic_cast<const CTestException*>(pInner), nullptr);
  EXPECT_TRUE(pClone->HasException(CGuid(kDerivedGuidText)));

  std::unique_ptr<IException> pDerivedClone(xDerived.Clone());
  EXPECT_NE(dynamic_cast<CTestException*>(pDerivedClone.get()), nullptr);
}

TEST(Exception, ForeignInnerIsClonedAndFreed) {
  int iLive = 0;
  {
    CForeignException xForeign(&iLive);
    EXPECT_EQ(iLive, 1);
    CQvException xOuter("outer", "o.cpp", "O", 1, xForeign);
    EXPECT_EQ(iLive, 2);
    {
      CQvException xCopy(xOuter);
      EXPECT_EQ(iLive, 3);
      std::unique_ptr<IException> pClone(xCopy.Clone());
      EXPECT_EQ(iLive, 4);
    }
    EXPECT_EQ(iLive, 2);
    EXPECT_TRUE(xOuter.HasException(CGuid("{11111111-2222-3333-4444-555555555555}")));
    EXPECT_STREQ(xOuter.ToString(true).ToCString(),
                 "Qv.Exception: outer (o.cpp:1, O)\n  inner: : foreign (:7, )");
  }
  EXPECT_EQ(iLive, 0);
}

TEST(Exception, CreateRunsNoExtraDataForBase) {
  const CQvException xFirst = CQvException::CreateFirst("first", "f.cpp", "F", 10);
  EXPECT_STREQ(xFirst.GetMessageText(), "first");
  EXPECT_EQ(xFirst.GetInnerException(), nullptr);
  const CQvException xSecond = CQvException::Create("second", "s.cpp", "S", 20, xFirst);
  EXPECT_STREQ(xSecond.GetMessageText(), "second");
  ASSERT_NE(xSecond.GetInnerException(), nullptr);
  EXPECT_STREQ(xSecond.GetInnerException()->GetMessageText(), "first");
  EXPECT_STREQ(xSecond.GetFunction(), "S");
  EXPECT_STREQ(xSecond.GetFile(), "s.cpp");
  EXPECT_EQ(xSecond.GetLine(), 20);
}

TEST(Exception, ToStringFormat) {
  const CQvException xBottom("bottom", "b.cpp", "Bottom", 30);
  CTestException xMiddle("middle", "m.cpp", "Middle", 20);
  const CQvException xMiddleChain = CQvException("middle", "m.cpp", "Middle", 20, xBottom);
  const CQvException xTop("top", "t.cpp", "Top", 10, xMiddleChain);

  EXPECT_STREQ(xTop.ToString(false).ToCString(), "Qv.Exception: top (t.cpp:10, Top)");
  EXPECT_STREQ(xTop.ToString(true).ToCString(),
               "Qv.Exception: top (t.cpp:10, Top)\n"
               "  inner: Qv.Exception: middle (m.cpp:20, Middle)\n"
               "  inner: Qv.Exception: bottom (b.cpp:30, Bottom)");
  EXPECT_STREQ(xBottom.ToString(true).ToCString(), "Qv.Exception: bottom (b.cpp:30, Bottom)");
  EXPECT_STREQ(xMiddle.ToString(true).ToCString(), "Test.Exception: middle (m.cpp:20, Middle)");
}
