#pragma once
// One launch helper for both backends. A per-pixel functor F with
//   QV_HD void operator()(int x, int y) const
// runs for every pixel of a iWidth x iHeight domain: as a CUDA kernel over the grid that the
// computation object holds, or on CPU threads over the same pixels.
#include "QvCudaComp.h"
#include "QvDevice.h"

namespace Qv {
namespace Kernel {

template <class F>
__global__ void RunPerPixel(F fnPixel, int iWidth, int iHeight) {
  const int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
  const int y = static_cast<int>(blockIdx.y * blockDim.y + threadIdx.y);
  if (x < iWidth && y < iHeight) fnPixel(x, y);
}

}  // namespace Kernel

// The host backend's launch: fnRows(y0, y1) for row ranges covering [0, iHeight) on the host
// workers, iWorkPerRow telling how much a row costs; timed as a kernel is.
template <class FRows>
void LaunchHostRows(CQvCudaComp& xComp, const char* szName, int iHeight, int64_t iWorkPerRow,
                    const FRows& fnRows) {
  xComp.Begin(szName, xComp.GetStream());
  Device::HostParallelFor(iHeight, iWorkPerRow, fnRows);
  xComp.End(szName, xComp.GetStream());
}

template <class F>
void LaunchPerPixel(CQvCudaComp& xComp, const char* szName, int iWidth, int iHeight,
                    const F& fnPixel) {
  if (!Device::IsCuda()) {
    LaunchHostRows(xComp, szName, iHeight, iWidth, [&](int y0, int y1) {
      for (int y = y0; y < y1; ++y)
        for (int x = 0; x < iWidth; ++x) fnPixel(x, y);
    });
    return;
  }
  const cudaStream_t hStream = xComp.GetStream();
  xComp.Begin(szName, hStream);
  Kernel::RunPerPixel<F>
      <<<xComp.GetGrid(), xComp.GetBlock(), 0, hStream>>>(fnPixel, iWidth, iHeight);
  xComp.End(szName, hStream);
}

// As many blocks of a kernel, at uThreadsPerBlock threads each, as the device keeps resident at
// once; 1 where the device cannot tell. Kernels that walk their work in a loop launch this many.
template <class K>
unsigned ResidentBlocks(K fnKernel, unsigned uThreadsPerBlock) {
  int iDevice = 0, iSMs = 0, iPerSM = 0;
  if (cudaGetDevice(&iDevice) != cudaSuccess ||
      cudaDeviceGetAttribute(&iSMs, cudaDevAttrMultiProcessorCount, iDevice) != cudaSuccess ||
      cudaOccupancyMaxActiveBlocksPerMultiprocessor(
          &iPerSM, fnKernel, static_cast<int>(uThreadsPerBlock), 0) != cudaSuccess) {
    cudaGetLastError();
    return 1;
  }
  return static_cast<unsigned>(iSMs * iPerSM > 1 ? iSMs * iPerSM : 1);
}

}  // namespace Qv
