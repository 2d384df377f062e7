// Exceptions of the code base. Every exception carries a message, the code location where it
// was raised, a type GUID and name, and optionally the exception that caused it (the inner
// exception), so that a failure deep down can be reported with its whole history.
#pragma once

#include <memory>

#include "QvGuid.h"
#include "QvString.h"

namespace Qv::Interop::Runtime31 {

class IException {
 public:
  virtual const char* GetMessageText() const = 0;
  virtual const char* GetFunction() const = 0;
  virtual const char* GetFile() const = 0;
  virtual int GetLine() const = 0;
  virtual const char* GetName() const = 0;
  virtual const Runtime30::CGuid& GetGUID() const = 0;
  // The exception that caused this one; null at the end of the chain.
  virtual const IException* GetInnerException() const = 0;
  // True when this exception or any inner one carries the GUID.
  virtual bool HasException(const Runtime30::CGuid& xGuid) const = 0;
  // Heap copy owned by the caller (delete it); the copy owns copies of the whole inner chain.
  virtual IException* Clone() const = 0;
  virtual ~IException();
};

}  // namespace Qv::Interop::Runtime31

namespace Qv {

using Interop::Runtime30::CGuid;
using Interop::Runtime31::IException;

// Where an exception was raised. Texts are copied; null texts become empty.
class CCodeLocation {
 public:
  CCodeLocation();
  CCodeLocation(const char* pFile, const char* pFunction, int iLine);

  const char* GetFile() const { return m_sFile.ToCString(); }
  const char* GetFunction() const { return m_sFunction.ToCString(); }
  int GetLine() const { return m_iLine; }

 private:
  CQvString m_sFile;
  CQvString m_sFunction;
  int m_iLine;
};

// Owns a Clone() of an exception. Copying clones again, so every owner has its own chain and a
// copied exception keeps its inner exception alive after the original is gone.
class CExceptionSafePointer {
 public:
  CExceptionSafePointer() = default;
  explicit CExceptionSafePointer(const IException& xException);
  CExceptionSafePointer(const CExceptionSafePointer& xOther);
  CExceptionSafePointer(CExceptionSafePointer&& xOther) noexcept = default;
  CExceptionSafePointer& operator=(const CExceptionSafePointer& xOther);
  CExceptionSafePointer& operator=(CExceptionSafePointer&& xOther) noexcept = default;
  ~CExceptionSafePointer() = default;

  // Replaces the owned exception by a clone of the given one.
  void Reset(const IException& xException);
  void Reset();

  const IException* Get() const { return m_pException.get(); }
  bool IsNull() const { return m_pException == nullptr; }

 private:
  std::unique_ptr<IException> m_pException;
};

class CQvException : public IException {
 public:
  CQvException(const char* pMessage, const char* pFile, const char* pFunction, int iLine);
  CQvException(const char* pMessage, const char* pFile, const char* pFunction, int iLine,
               const IException& xInner);
  CQvException(const CQvException& xOther);
  CQvException& operator=(const CQvException& xOther);
  ~CQvException() override;

  const char* GetMessageText() const override;
  const char* GetFunction() const override;
  const char* GetFile() const override;
  int GetLine() const override;
  // Type name and GUID as recorded in m_sName / m_xGuid; a derived type sets both in its
  // constructor.
  const char* GetName() const override;
  const CGuid& GetGUID() const override;
  const IException* GetInnerException() const override;
  bool HasException(const CGuid& xGuid) const override;
  IException* Clone() const override;

  // Hook run before each throw to record extra state (for example a pending device error);
  // the base type has nothing more to record.
  virtual void SetExceptionData();

  // One line per exception of the chain: "<Name>: <message> (<file>:<line>, <function>)";
  // inner exceptions follow on their own lines, each prefixed by "  inner: ". Lines are
  // separated by '\n' with no trailing newline. Without inner: only the first line.
  virtual CQvString ToString(bool bWithInner) const;

  // Formats one line as above for any exception (null-safe).
  static CQvString FormatLine(const IException& xException);

  // Construct and run SetExceptionData; used by QV_THROW / QV_RETHROW.
  static CQvException CreateFirst(const char* pMessage, const char* pFile, const char* pFunction,
                                  int iLine);
  static CQvException Create(const char* pMessage, const char* pFile, const char* pFunction,
                             int iLine, const IException& xInner);

  static const CGuid& GetTypeGUID();
  static const char* GetTypeName();  // "Qv.Exception"

 protected:
  void AppendToMessage(const char* pText);

  CGuid m_xGuid;
  CQvString m_sName;
  CQvString m_sMessage;
  CCodeLocation m_xLocation;
  CExceptionSafePointer m_xInner;
};

}  // namespace Qv

// Throws a new exception chain.
#define QV_THROW(message) \
  throw ::Qv::CQvException::CreateFirst((message), __FILE__, __func__, __LINE__)
// Throws an exception that wraps (a copy of) the caught exception `inner`.
#define QV_RETHROW(message, inner) \
  throw ::Qv::CQvException::Create((message), __FILE__, __func__, __LINE__, (inner))
