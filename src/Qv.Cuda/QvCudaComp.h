#pragma once
#include <memory>

#include "QvCudaDefs.h"
#include "QvImageFormat.h"

namespace Qv {
namespace Device {
class CStreamTimer;
}

// Base of the computation classes: the stream that launches go to, the launch geometry, and
// the bracket around each launch.
class CQvCudaComp {
 public:
  CQvCudaComp();
  virtual ~CQvCudaComp();
  CQvCudaComp(const CQvCudaComp&) = delete;
  CQvCudaComp& operator=(const CQvCudaComp&) = delete;

  void SetStream(cudaStream_t& hStream) { m_hStream = hStream; }
  cudaStream_t GetStream() const { return m_hStream; }

  // A thread for every pixel of the format, in blocks of iBlockX x iBlockY.
  void EvalKernelDim_2D_1D(const CQvImageFormat& xFormat, int iBlockX, int iBlockY);
  // Block as given, grid width / blockX + 1 by height / blockY + 1 (one spare block row and
  // column that do nothing when the size is a multiple of the block).
  void SetKernelDim_Direct(const CQvImageFormat& xFormat, int iBlockX, int iBlockY);
  const dim3& GetGrid() const { return m_xGrid; }
  const dim3& GetBlock() const { return m_xBlock; }

  // Around each launch. End reports a failed launch as CQvCudaException and waits for the
  // stream, so that the next element finds a complete image.
  void Begin(const char* szName, cudaStream_t hStream);
  void End(const char* szName, cudaStream_t hStream);

  // Kernel timing, for benchmarks. While it is on, every launch is bracketed by events on its
  // stream, the closing one queued before End waits, and GetKernelMs sums the time between the
  // brackets since the timing was switched on (wall time on the host backend).
  void SetKernelTiming(bool bOn);
  double GetKernelMs() const { return m_dKernelMs; }

 protected:
  cudaStream_t m_hStream = nullptr;
  dim3 m_xGrid;
  dim3 m_xBlock;
  std::unique_ptr<Device::CStreamTimer> m_pTimer;
  double m_dKernelMs = 0.0;
};

}  // namespace Qv
