#include "DenseConvolveKernels.h"
#include "QvCudaCompConvolve.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "TextureBinding.h"

namespace Qv {
namespace Kernel {

// Sobel on the CUDA backend: a block of 32 x 16 threads puts the first channel of its tile and
// a one-pixel apron into shared memory, one load per sample instead of nine fetches per
// pixel, and each thread takes its 3 x 3 neighbourhood from there.
namespace SobelTile {
constexpr int kX = 32, kY = 16, kCols = kX + 2, kRows = kY + 2;
}

template <class TSrc>
__global__ void __launch_bounds__(SobelTile::kX* SobelTile::kY)
    Sobel(SDeviceImageDesc2D xTarget, SDeviceImageDesc2D xSource) {
  using namespace SobelTile;
  __shared__ float afTile[kRows][kCols];
  const int iW = xTarget.xFormat.iWidth, iH = xTarget.xFormat.iHeight;
  const int x0 = static_cast<int>(blockIdx.x) * kX, y0 = static_cast<int>(blockIdx.y) * kY;
  if (x0 >= iW || y0 >= iH) return;  // the spare column or row of blocks
  for (int i = static_cast<int>(threadIdx.y) * kX + static_cast<int>(threadIdx.x);
       i < kRows * kCols; i += kX * kY) {
    const int r = i / kCols, c = i - r * kCols;
    afTile[r][c] = FirstChannelClamped<TSrc>(xSource, x0 - 1 + c, y0 - 1 + r);
  }
  __syncthreads();
  const int c = static_cast<int>(threadIdx.x) + 1, r = static_cast<int>(threadIdx.y) + 1;
  const int x = x0 + c - 1, y = y0 + r - 1;
  if (x >= iW || y >= iH) return;
  *PixelPtr<L_f>(xTarget, x, y) = SobelMagnitude(
      afTile[r - 1][c - 1], afTile[r - 1][c], afTile[r - 1][c + 1], afTile[r][c - 1],
      afTile[r][c + 1], afTile[r + 1][c - 1], afTile[r + 1][c], afTile[r + 1][c + 1]);
}

}  // namespace Kernel

namespace {

constexpr int kMinFilterSize = 2, kMaxFilterSize = 16;

// One kernel per filter size, so that both loops unroll.
template <int N>
void LaunchConvolution(CQvCudaComp& xComp, const CQvDeviceImage2D& xTarget,
                       const STexture2D& xSource, const float* pfCoefficients, int iSize) {
  if constexpr (N <= kMaxFilterSize) {
    if (iSize != N) {
      LaunchConvolution<N + 1>(xComp, xTarget, xSource, pfCoefficients, iSize);
      return;
    }
    Kernel::FConvolution<N> fnPixel{xTarget.GetDesc(), xSource, {}};
    for (int k = 0; k < N * N; ++k) fnPixel.afCoefficient[k] = pfCoefficients[k];
    const CQvImageFormat& xFormat = xTarget.GetFormat();
    LaunchPerPixel(xComp, "Convolution --> Kernel::Convolution", xFormat.iWidth, xFormat.iHeight,
                   fnPixel);
  }
}

// Calls fn with the class through which the first channel of the image is read: L of its data
// type for one channel (bayer included), RGBA of its data type for RGBA; false for the rest.
template <class F>
bool WithFirstChannelClass(const CQvDeviceImage2D& xImage, F&& fn) {
  if (xImage.IsOfType<L_uc>(true))
    fn(L_uc());
  else if (xImage.IsOfType<L_us>(true))
    fn(L_us());
  else if (xImage.IsOfType<L_f>(true))
    fn(L_f());
  else if (xImage.IsOfType<RGBA_uc>())
    fn(RGBA_uc());
  else if (xImage.IsOfType<RGBA_us>())
    fn(RGBA_us());
  else if (xImage.IsOfType<RGBA_f>())
    fn(RGBA_f());
  else
    return false;
  return true;
}

}  // namespace

void CQvCudaCompConvolve::_Convolution(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                       const float* pfCoefficients, int iSize) {
  try {
    if (iSize < kMinFilterSize || iSize > kMaxFilterSize) QV_THROW("Filter size must be 2 to 16");
    // Neighbours are read after other threads may have written them.
    if (&xTarget == &xSource) QV_THROW("Target and source must be different images");
    EvalKernelDim_2D_1D(xSource.GetFormat(), 8, 32);
    xTarget.Create(xSource.GetFormat());
    if (!xSource.IsOfType<L_f>()) QV_THROW("Source image is not grayscale float image");
    CTextureBinding xBinding(xSource, false);
    if (Device::IsCuda()) {
      LaunchConvolution<kMinFilterSize>(*this, xTarget, xBinding.Get(), pfCoefficients, iSize);
      return;
    }
    const char* szName = "Convolution --> Kernel::Convolution";
    const SDeviceImageDesc2D xTrg = xTarget.GetDesc(), xSrc = xSource.GetDesc();
    LaunchHostRows(*this, szName, xTrg.xFormat.iHeight, xTrg.xFormat.iWidth * iSize * iSize,
                   [&](int y0, int y1) {
                     Kernel::HostConvolutionRows(xTrg, xSrc, pfCoefficients, iSize, y0, y1);
                   });
  } catch (const CQvException& e) {
    QV_RETHROW("Error applying convolution", e);
  }
}

void CQvCudaCompConvolve::Sobel(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource) {
  try {
    if (&xTarget == &xSource) QV_THROW("Target and source must be different images");
    const CQvImageFormat& xSrcFormat = xSource.GetFormat();
    const CQvImageFormat xTrgFormat(xSrcFormat.iWidth, xSrcFormat.iHeight, EPixelType::Lum,
                                    EDataType::Float);
    xTarget.Create(xTrgFormat);
    xTarget.SetZero();
    // Bound with linear filter, which refuses an invalid source. Every sample falls on a pixel
    // centre, where the filter returns the pixel itself, so both runners read the pixels.
    CTextureBinding xBinding(xSource, true);
    SetKernelDim_Direct(xTrgFormat, Kernel::SobelTile::kX, Kernel::SobelTile::kY);
    const bool bKnown = WithFirstChannelClass(xSource, [&](auto xTag) {
      using TSrc = decltype(xTag);
      const char* szName = "Sobel --> Kernel::Sobel";
      const SDeviceImageDesc2D xTrgDesc = xTarget.GetDesc(), xSrcDesc = xSource.GetDesc();
      if (!Device::IsCuda()) {
        LaunchHostRows(*this, szName, xTrgFormat.iHeight, xTrgFormat.iWidth, [&](int y0, int y1) {
          Kernel::HostSobelRows<TSrc>(xTrgDesc, xSrcDesc, y0, y1);
        });
        return;
      }
      Begin(szName, m_hStream);
      Kernel::Sobel<TSrc><<<GetGrid(), GetBlock(), 0, m_hStream>>>(xTrgDesc, xSrcDesc);
      End(szName, m_hStream);
    });
    if (!bKnown) QV_THROW("Source image is of invalid type");
  } catch (const CQvException& e) {
    QV_RETHROW("Error applying sobel filter", e);
  }
}

}  // namespace Qv
