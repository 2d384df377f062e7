#include "QvException.h"

namespace Qv::Interop::Runtime31 {

IException::~IException() = default;

}  // namespace Qv::Interop::Runtime31

namespace Qv {

namespace {

const char* NonNull(const char* pText) {
  return pText != nullptr ? pText : "";
}

}  // namespace

// ---- CCodeLocation -------------------------------------------------------------------------

CCodeLocation::CCodeLocation() : m_iLine(0) {}

CCodeLocation::CCodeLocation(const char* pFile, const char* pFunction, int iLine)
    : m_sFile(pFile), m_sFunction(pFunction), m_iLine(iLine) {}

// ---- CExceptionSafePointer -----------------------------------------------------------------

CExceptionSafePointer::CExceptionSafePointer(const IException& xException)
    : m_pException(xException.Clone()) {}

CExceptionSafePointer::CExceptionSafePointer(const CExceptionSafePointer& xOther)
    : m_pException(xOther.m_pException ? xOther.m_pException->Clone() : nullptr) {}

CExceptionSafePointer& CExceptionSafePointer::operator=(const CExceptionSafePointer& xOther) {
  if (this != &xOther) {
    std::unique_ptr<IException> pCopy(xOther.m_pException ? xOther.m_pException->Clone() : nullptr);
    m_pException = std::move(pCopy);
  }
  return *this;
}

void CExceptionSafePointer::Reset(const IException& xException) {
  // Clone first: the given exception may be owned (directly or deeper) by this pointer.
  std::unique_ptr<IException> pCopy(xException.Clone());
  m_pException = std::move(pCopy);
}

void CExceptionSafePointer::Reset() {
  m_pException.reset();
}

// ---- CQvException --------------------------------------------------------------------------

CQvException::CQvException(const char* pMessage, const char* pFile, const char* pFunction,
                           int iLine)
    : m_xGuid(GetTypeGUID()),
      m_sName(GetTypeName()),
      m_sMessage(pMessage),
      m_xLocation(pFile, pFunction, iLine) {}

CQvException::CQvException(const char* pMessage, const char* pFile, const char* pFunction,
                           int iLine, const IException& xInner)
    : m_xGuid(GetTypeGUID()),
      m_sName(GetTypeName()),
      m_sMessage(pMessage),
      m_xLocation(pFile, pFunction, iLine),
      m_xInner(xInner) {}

CQvException::CQvException(const CQvException& xOther) = default;

CQvException& CQvException::operator=(const CQvException& xOther) = default;

CQvException::~CQvException() = default;

const char* CQvException::GetMessageText() const {
  return m_sMessage.ToCString();
}

const char* CQvException::GetFunction() const {
  return m_xLocation.GetFunction();
}

const char* CQvException::GetFile() const {
  return m_xLocation.GetFile();
}

int CQvException::GetLine() const {
  return m_xLocation.GetLine();
}

const char* CQvException::GetName() const {
  return m_sName.ToCString();
}

const CGuid& CQvException::GetGUID() const {
  return m_xGuid;
}

const IException* CQvException::GetInnerException() const {
  return m_xInner.Get();
}

bool CQvException::HasException(const CGuid& xGuid) const {
  if (GetGUID() == xGuid) return true;
  const IException* pInner = m_xInner.Get();
  return pInner != nullptr && pInner->HasException(xGuid);
}

IException* CQvException::Clone() const {
  return new CQvException(*this);
}

void CQvException::SetExceptionData() {}

CQvString CQvException::FormatLine(const IException& xException) {
  CQvString sLine;
  sLine << NonNull(xException.GetName()) << ": " << NonNull(xException.GetMessageText()) << " ("
        << NonNull(xException.GetFile()) << ":" << xException.GetLine() << ", "
        << NonNull(xException.GetFunction()) << ")";
  return sLine;
}

CQvString CQvException::ToString(bool bWithInner) const {
  CQvString sText = FormatLine(*this);
  if (bWithInner) {
    for (const IException* pInner = GetInnerException(); pInner != nullptr;
         pInner = pInner->GetInnerException()) {
      sText << "\n  inner: " << FormatLine(*pInner);
    }
  }
  return sText;
}

CQvException CQvException::CreateFirst(const char* pMessage, const char* pFile,
                                       const char* pFunction, int iLine) {
  CQvException xException(pMessage, pFile, pFunction, iLine);
  xException.SetExceptionData();
  return xException;
}

CQvException CQvException::Create(const char* pMessage, const char* pFile, const char* pFunction,
                                  int iLine, const IException& xInner) {
  CQvException xException(pMessage, pFile, pFunction, iLine, xInner);
  xException.SetExceptionData();
  return xException;
}

const CGuid& CQvException::GetTypeGUID() {
  static const CGuid xGuid("{6F1B2C4E-2B3A-4F7E-9C1D-5A8E3B7D9E01}");
  return xGuid;
}

const char* CQvException::GetTypeName() {
  return "Qv.Exception";
}

void CQvException::AppendToMessage(const char* pText) {
  m_sMessage << pText;
}

}  // namespace Qv
