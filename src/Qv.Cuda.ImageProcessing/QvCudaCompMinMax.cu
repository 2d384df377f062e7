#include <algorithm>
#include <cstring>

#include "MinMaxKernels.h"
#include "QvCudaCompConvolve.h"
#include "QvCudaException.h"
#include "QvDevice.h"
#include "QvDeviceMMU.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "TextureBinding.h"

namespace Qv {
namespace Kernel {

// Two levels: the pairs of a block's warps meet in shared slots, one per warp number (so any
// block shape works), and the block's pair goes to the global one by compare-and-swap. Each
// thread first reduces the pixels it strides over, so that a 4K image needs one merge per
// block, not per pixel.
template <class T, int C>
__global__ void GetImageMinMax(SDeviceImageDesc2D xImage, float* pfMin, float* pfMax) {
  constexpr int kMaxWarps = 32;
  __shared__ float afMin[kMaxWarps], afMax[kMaxWarps];
  const unsigned uThreads = blockDim.x * blockDim.y;
  const unsigned uThread = threadIdx.y * blockDim.x + threadIdx.x;
  const unsigned uWarp = uThread / 32, uWarps = (uThreads + 31) / 32;
  if (uThread < uWarps) {
    afMin[uThread] = kInfinity;
    afMax[uThread] = -kInfinity;
  }
  const CQvImageFormat& xFormat = xImage.xFormat;
  SMinMax xPair;
  const int iStrideX = static_cast<int>(gridDim.x * blockDim.x);
  const int iStrideY = static_cast<int>(gridDim.y * blockDim.y);
  for (int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x); x < xFormat.iWidth;
       x += iStrideX) {
    // Rows unrolled, so that several fetches are in flight at once.
#pragma unroll 4
    for (int y = static_cast<int>(blockIdx.y * blockDim.y + threadIdx.y); y < xFormat.iHeight;
         y += iStrideY)
      xPair.Take(MinMaxSample<T, C>(xImage, x, y));
  }
  __syncthreads();
  if ((uWarp + 1) * 32 <= uThreads) {
    // A full warp: shuffles, then lane 0 alone writes the slot.
    for (int iOffset = 16; iOffset > 0; iOffset /= 2) {
      xPair.fMin = fminf(xPair.fMin, __shfl_xor_sync(0xFFFFFFFFu, xPair.fMin, iOffset));
      xPair.fMax = fmaxf(xPair.fMax, __shfl_xor_sync(0xFFFFFFFFu, xPair.fMax, iOffset));
    }
    if (uThread % 32 == 0) {
      afMin[uWarp] = xPair.fMin;
      afMax[uWarp] = xPair.fMax;
    }
  } else {
    // The last warp of a block that is not a multiple of 32 threads.
    MergeMinMax(&afMin[uWarp], &afMax[uWarp], xPair);
  }
  __syncthreads();
  if (uThread == 0) {
    SMinMax xBlock;
    for (unsigned w = 0; w < uWarps; ++w) {
      xBlock.fMin = fminf(xBlock.fMin, afMin[w]);
      xBlock.fMax = fmaxf(xBlock.fMax, afMax[w]);
    }
    MergeMinMax(pfMin, pfMax, xBlock);
  }
}

}  // namespace Kernel

namespace {

const char* const kMinMaxLabel = "GetImageMinMax --> Kernel::GetImageMinMax";

void CopyPair(void* pDst, const void* pSrc, cudaMemcpyKind eKind, cudaStream_t hStream) {
  if (!Device::IsCuda()) {
    std::memcpy(pDst, pSrc, 2 * sizeof(float));
    return;
  }
  QV_CUDA_CHECK(cudaMemcpyAsync(pDst, pSrc, 2 * sizeof(float), eKind, hStream),
                "Error copying memory");
  QV_CUDA_CHECK(cudaStreamSynchronize(hStream), "Error copying memory");
}

template <class T, int C>
void RunMinMax(CQvCudaComp& xComp, const SDeviceImageDesc2D& xImage, float* pfMin, float* pfMax) {
  const CQvImageFormat& xFormat = xImage.xFormat;
  const cudaStream_t hStream = xComp.GetStream();
  xComp.Begin(kMinMaxLabel, hStream);
  if (Device::IsCuda()) {
    dim3 xGrid = xComp.GetGrid();
    const dim3& xBlock = xComp.GetBlock();
    // Enough blocks to fill the device once; each thread then strides over several rows.
    const unsigned uBlocks = ResidentBlocks(Kernel::GetImageMinMax<T, C>, xBlock.x * xBlock.y);
    // Rounded down: a second, small wave of blocks would take as long as the first.
    xGrid.y = std::max(1u, std::min(xGrid.y, uBlocks / xGrid.x));
    Kernel::GetImageMinMax<T, C><<<xGrid, xBlock, 0, hStream>>>(xImage, pfMin, pfMax);
  } else {
    // Each worker reduces its rows, then merges as a block of the kernel does.
    Device::HostParallelFor(xFormat.iHeight, xFormat.iWidth, [&](int y0, int y1) {
      Kernel::SMinMax xPair;
      for (int y = y0; y < y1; ++y)
        for (int x = 0; x < xFormat.iWidth; ++x)
          xPair.Take(Kernel::MinMaxSample<T, C>(xImage, x, y));
      Kernel::MergeMinMax(pfMin, pfMax, xPair);
    });
  }
  xComp.End(kMinMaxLabel, hStream);
}

template <class T>
void RunMinMaxOfChannel(CQvCudaComp& xComp, unsigned int uChannel, const SDeviceImageDesc2D& xImage,
                        float* pfMin, float* pfMax) {
  switch (uChannel) {
    case 0:
      return RunMinMax<T, 0>(xComp, xImage, pfMin, pfMax);
    case 1:
      return RunMinMax<T, 1>(xComp, xImage, pfMin, pfMax);
    case 2:
      return RunMinMax<T, 2>(xComp, xImage, pfMin, pfMax);
    default:
      return RunMinMax<T, 3>(xComp, xImage, pfMin, pfMax);
  }
}

}  // namespace

void CQvCudaCompConvolve::GetImageMinMax(float& fMinimum, float& fMaximum, unsigned int uChannel,
                                         const CQvDeviceImage2D& xImage) {
  try {
    if (!m_pfMinMax) m_pfMinMax = static_cast<float*>(CQvDeviceMMU::QvCudaMalloc(2, sizeof(float)));
    const float afStart[2] = {Kernel::kInfinity, -Kernel::kInfinity};
    CopyPair(m_pfMinMax, afStart, cudaMemcpyHostToDevice, m_hStream);
    const CQvImageFormat& xFormat = xImage.GetFormat();
    EvalKernelDim_2D_1D(xFormat, 32, 8);
    float* pfMin = m_pfMinMax;
    float* pfMax = m_pfMinMax + 1;
    auto fnRun = [&](auto xTag, bool bLum) {
      using T = decltype(xTag);
      // Bound as the interface has it; the samples are read from memory, as a point-sampled
      // fetch would return them.
      CTextureBinding xBinding(xImage, false);
      if (bLum && uChannel != 0) QV_THROW("Invalid channel index for luminance image");
      if (!bLum && uChannel > 3) QV_THROW("Invalid channel index for RGBA image");
      if constexpr (T::iChannels == 1)
        RunMinMax<T, 0>(*this, xImage.GetDesc(), pfMin, pfMax);
      else
        RunMinMaxOfChannel<T>(*this, uChannel, xImage.GetDesc(), pfMin, pfMax);
    };
    if (xImage.IsOfType<L_f>())
      fnRun(L_f(), true);
    else if (xImage.IsOfType<RGBA_f>())
      fnRun(RGBA_f(), false);
    else if (xImage.IsOfType<L_uc>())
      fnRun(L_uc(), true);
    else if (xImage.IsOfType<RGBA_uc>())
      fnRun(RGBA_uc(), false);
    else
      QV_THROW("Image is of invalid type");
    float afResult[2] = {0.0f, 0.0f};
    CopyPair(afResult, m_pfMinMax, cudaMemcpyDeviceToHost, m_hStream);
    Kernel::SMinMax xPair;
    xPair.fMin = afResult[0];
    xPair.fMax = afResult[1];
    if (xPair.IsEmpty()) {
      const uint32_t uQuietNaN = 0x7FC00000u;
      std::memcpy(&fMinimum, &uQuietNaN, sizeof(fMinimum));
      std::memcpy(&fMaximum, &uQuietNaN, sizeof(fMaximum));
    } else {
      fMinimum = xPair.fMin;
      fMaximum = xPair.fMax;
    }
  } catch (const CQvException& e) {
    QV_RETHROW("Error getting minimum and maximum of the given image", e);
  }
}

}  // namespace Qv
