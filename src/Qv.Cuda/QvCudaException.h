#pragma once
#include <cuda_runtime_api.h>

#include "QvException.h"

namespace Qv {

// A failure of the CUDA runtime: the message of the failing step, followed by the CUDA
// error name and text and the device id.
class CQvCudaException : public CQvException {
 public:
  CQvCudaException(const char* szMessage, const char* szFile, const char* szFunction, int iLine);
  CQvCudaException(const CQvCudaException&) = default;
  CQvCudaException& operator=(const CQvCudaException&) = default;
  ~CQvCudaException() override;

  IException* Clone() const override;
  void SetExceptionData() override;

  // Builds the exception and records the CUDA error: eKnownError when the failing call is
  // known, else the runtime's pending error.
  static CQvCudaException CreateFirst(const char* szMessage, const char* szFile,
                                      const char* szFunction, int iLine,
                                      cudaError_t eKnownError = cudaSuccess);
  static const CGuid& GetTypeGUID();
  static const char* GetTypeName();

  int GetErrorCode() const { return m_iErrorCode; }
  const CQvString& GetErrorText() const { return m_sErrorText; }
  int GetDeviceID() const { return m_iDeviceID; }

 private:
  int m_iErrorCode = 0;
  CQvString m_sErrorText;
  int m_iDeviceID = -1;
  cudaError_t m_eFallback = cudaSuccess;
};

// Every CUDA runtime call goes through here.
void QvCudaCheck(cudaError_t eResult, const char* szMessage, const char* szFile,
                 const char* szFunction, int iLine);

}  // namespace Qv

#define QV_CUDA_CHECK(call, message) \
  ::Qv::QvCudaCheck((call), (message), __FILE__, __func__, __LINE__)
