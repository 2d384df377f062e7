#include "QvCudaException.h"

#include <string>

namespace Qv {

CQvCudaException::CQvCudaException(const char* szMessage, const char* szFile,
                                   const char* szFunction, int iLine)
    : CQvException(szMessage, szFile, szFunction, iLine) {
  m_xGuid = GetTypeGUID();
  m_sName = GetTypeName();
}

CQvCudaException::~CQvCudaException() = default;

IException* CQvCudaException::Clone() const {
  return new CQvCudaException(*this);
}

void CQvCudaException::SetExceptionData() {
  CQvException::SetExceptionData();
  // A known failing call wins; the pending error is read (and cleared) either way.
  cudaError_t eError = cudaGetLastError();
  if (m_eFallback != cudaSuccess) eError = m_eFallback;
  if (eError == cudaSuccess) eError = cudaErrorUnknown;
  m_iErrorCode = static_cast<int>(eError);
  m_sErrorText = cudaGetErrorName(eError);
  m_sErrorText << ": " << cudaGetErrorString(eError) << " (ID " << m_iErrorCode << ")";
  int iDevice = -1;
  if (cudaGetDevice(&iDevice) != cudaSuccess) {
    cudaGetLastError();
    iDevice = -1;
  }
  m_iDeviceID = iDevice;
  CQvString sTail(". '");
  sTail << m_sErrorText << "', Device ID: " << m_iDeviceID;
  AppendToMessage(sTail.ToCString());
}

CQvCudaException CQvCudaException::CreateFirst(const char* szMessage, const char* szFile,
                                               const char* szFunction, int iLine,
                                               cudaError_t eKnownError) {
  CQvCudaException xException(szMessage, szFile, szFunction, iLine);
  xException.m_eFallback = eKnownError;
  xException.SetExceptionData();
  return xException;
}

const CGuid& CQvCudaException::GetTypeGUID() {
  static const CGuid xGuid("{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}");
  return xGuid;
}

const char* CQvCudaException::GetTypeName() {
  return "Qv.CudaException";
}

void QvCudaCheck(cudaError_t eResult, const char* szMessage, const char* szFile,
                 const char* szFunction, int iLine) {
  if (eResult != cudaSuccess)
    throw CQvCudaException::CreateFirst(szMessage, szFile, szFunction, iLine, eResult);
}

}  // namespace Qv
