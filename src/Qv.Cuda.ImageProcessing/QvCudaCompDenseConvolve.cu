#include "DenseConvolveKernels.h"
#include "QvCudaCompConvolve.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "TextureBinding.h"

namespace Qv {
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
    if (iSize < kMinFilterSize || iSize > kMaxFilterSize)
      QV_THROW("Filter size must be 2 to 16");
    // Neighbours are read after other threads may have written them.
    if (&xTarget == &xSource) QV_THROW("Target and source must be different images");
    EvalKernelDim_2D_1D(xSource.GetFormat(), 8, 32);
    xTarget.Create(xSource.GetFormat());
    if (!xSource.IsOfType<L_f>()) QV_THROW("Source image is not grayscale float image");
    CTextureBinding xBinding(xSource, false);
    LaunchConvolution<kMinFilterSize>(*this, xTarget, xBinding.Get(), pfCoefficients, iSize);
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
    // Linear filter as specified; every fetch falls on a pixel centre, so it reads the pixel.
    CTextureBinding xBinding(xSource, true);
    SetKernelDim_Direct(xTrgFormat, 32, 16);
    const bool bKnown = WithFirstChannelClass(xSource, [&](auto xTag) {
      LaunchPerPixel(*this, "Sobel --> Kernel::Sobel", xTrgFormat.iWidth, xTrgFormat.iHeight,
                     Kernel::FSobel<decltype(xTag)>{xTarget.GetDesc(), xBinding.Get()});
    });
    if (!bKnown) QV_THROW("Source image is of invalid type");
  } catch (const CQvException& e) {
    QV_RETHROW("Error applying sobel filter", e);
  }
}

}  // namespace Qv
