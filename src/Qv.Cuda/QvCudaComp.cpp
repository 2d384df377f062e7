#include "QvCudaComp.h"

#include "QvCudaException.h"
#include "QvDevice.h"

namespace Qv {

CQvCudaComp::CQvCudaComp() : m_xGrid(1, 1, 1), m_xBlock(1, 1, 1) {}

CQvCudaComp::~CQvCudaComp() = default;

void CQvCudaComp::EvalKernelDim_2D_1D(const CQvImageFormat& xFormat, int iBlockX, int iBlockY) {
  if (iBlockX <= 0 || iBlockY <= 0) QV_THROW("Invalid block size");
  const unsigned uWidth = xFormat.iWidth > 0 ? static_cast<unsigned>(xFormat.iWidth) : 0u;
  const unsigned uHeight = xFormat.iHeight > 0 ? static_cast<unsigned>(xFormat.iHeight) : 0u;
  m_xBlock = dim3(static_cast<unsigned>(iBlockX), static_cast<unsigned>(iBlockY), 1);
  m_xGrid =
      dim3((uWidth + m_xBlock.x - 1) / m_xBlock.x, (uHeight + m_xBlock.y - 1) / m_xBlock.y, 1);
}

void CQvCudaComp::SetKernelDim_Direct(const CQvImageFormat& xFormat, int iBlockX, int iBlockY) {
  if (iBlockX <= 0 || iBlockY <= 0) QV_THROW("Invalid block size");
  m_xBlock.x = static_cast<unsigned>(iBlockX);
  m_xBlock.y = static_cast<unsigned>(iBlockY);
  m_xGrid.x = static_cast<unsigned>(xFormat.iWidth / iBlockX + 1);
  m_xGrid.y = static_cast<unsigned>(xFormat.iHeight / iBlockY + 1);
}

void CQvCudaComp::SetKernelTiming(bool bOn) {
  m_pTimer.reset(bOn ? new Device::CStreamTimer() : nullptr);
  m_dKernelMs = 0.0;
}

void CQvCudaComp::Begin(const char* /*szName*/, cudaStream_t hStream) {
  if (m_pTimer) m_pTimer->Start(hStream);
}

void CQvCudaComp::End(const char* szName, cudaStream_t hStream) {
  if (m_pTimer) m_pTimer->Stop(hStream);
  if (!Device::IsCuda()) {
    if (m_pTimer) m_dKernelMs += m_pTimer->ElapsedMs();
    return;
  }
  CQvString sText("Error executing ");
  sText << (szName ? szName : "kernel");
  QV_CUDA_CHECK(cudaPeekAtLastError(), sText.ToCString());
  QV_CUDA_CHECK(cudaStreamSynchronize(hStream), sText.ToCString());
  if (m_pTimer) m_dKernelMs += m_pTimer->ElapsedMs();
}

}  // namespace Qv
