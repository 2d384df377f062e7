#include <cmath>
#include <cstring>
#include <vector>

#include "ConvolveKernels.h"
#include "QvCudaCompConvolve.h"
#include "QvDeviceMMU.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "TextureBinding.h"

namespace Qv {
namespace {

// Resampling classes, tested in this order; bayer UByte runs as L_uc and keeps its format.
// RGBA_us carries a 16-bit demosaic's colour.
enum class EResampleClass { RGBA_uc, RGBA_us, L_uc, L_us, L_f, None };

EResampleClass ResampleClassOf(const CQvDeviceImage2D& xImage) {
  if (xImage.IsOfType<RGBA_uc>()) return EResampleClass::RGBA_uc;
  if (xImage.IsOfType<RGBA_us>()) return EResampleClass::RGBA_us;
  if (xImage.IsOfType<L_uc>(true)) return EResampleClass::L_uc;
  if (xImage.IsOfType<L_us>()) return EResampleClass::L_us;
  if (xImage.IsOfType<L_f>()) return EResampleClass::L_f;
  return EResampleClass::None;
}

// Per pixel on the CUDA backend; rows at a time on the host, from the functor's sample
// coordinates worked out once. Reductions so steep that the host's tables would outgrow the
// images run per pixel there too.
template <template <class> class F, class T>
void RunResample(CQvCudaComp& xComp, const char* szName, int w, int h, const F<T>& fnPixel) {
  const int nx = fnPixel.SamplesX(), ny = fnPixel.SamplesY();
  const int64_t iTableFloats =
      (static_cast<int64_t>(ny) + 3) * fnPixel.xSource.xImage.xFormat.iWidth * 3 +
      int64_t{3} * w * nx;
  if (Device::IsCuda() || iTableFloats > (int64_t{16} << 20)) {
    LaunchPerPixel(xComp, szName, w, h, fnPixel);
    return;
  }
  std::vector<float> afX(static_cast<size_t>(w) * nx), afY(static_cast<size_t>(h) * ny);
  for (int x = 0; x < w; ++x)
    for (int i = 0; i < nx; ++i) afX[static_cast<size_t>(x) * nx + i] = fnPixel.SampleX(x, i);
  for (int y = 0; y < h; ++y)
    for (int j = 0; j < ny; ++j) afY[static_cast<size_t>(y) * ny + j] = fnPixel.SampleY(y, j);
  const Kernel::SResampleAxes xAxes{afX.data(), nx, afY.data(), ny, !fnPixel.bSingleSample};
  LaunchHostRows(xComp, szName, h, w, [&](int y0, int y1) {
    Kernel::HostResampleRows<T>(fnPixel.xTarget, fnPixel.xSource.xImage, xAxes, y0, y1);
  });
}

// Runs fnLaunch with the pixel class of the source as a template tag.
template <template <class> class F, class... TArgs>
void LaunchResample(CQvCudaComp& xComp, const char* szName, EResampleClass eClass,
                    const CQvImageFormat& xTrgFormat, TArgs... xArgs) {
  const int w = xTrgFormat.iWidth, h = xTrgFormat.iHeight;
  switch (eClass) {
    case EResampleClass::RGBA_uc:
      RunResample(xComp, szName, w, h, F<RGBA_uc>{xArgs...});
      break;
    case EResampleClass::RGBA_us:
      RunResample(xComp, szName, w, h, F<RGBA_us>{xArgs...});
      break;
    case EResampleClass::L_uc:
      RunResample(xComp, szName, w, h, F<L_uc>{xArgs...});
      break;
    case EResampleClass::L_us:
      RunResample(xComp, szName, w, h, F<L_us>{xArgs...});
      break;
    case EResampleClass::L_f:
      RunResample(xComp, szName, w, h, F<L_f>{xArgs...});
      break;
    case EResampleClass::None:
      QV_THROW("Source image is of invalid type");
  }
}

void CheckTargetSize(int iWidth, int iHeight, const char* szWhat) {
  if (iWidth > 0 && iHeight > 0) return;
  CQvString sText(szWhat);
  sText << ": " << iWidth << "x" << iHeight;
  QV_THROW(sText.ToCString());
}

// The common tail of Shrink and Resize: create the target of the given size in the source's
// types, bind the source with linear filter and run the per-pixel functor F of its class.
template <template <class> class F, class TArg>
void ResampleInto(CQvCudaComp& xComp, const char* szName, CQvDeviceImage2D& xTarget,
                  const CQvDeviceImage2D& xSource, int iWidth, int iHeight, TArg xArg) {
  if (&xTarget == &xSource) QV_THROW("Target and source must be different images");
  const CQvImageFormat xSrcFormat = xSource.GetFormat();
  const CQvImageFormat xTrgFormat(iWidth, iHeight, xSrcFormat.ePixelType, xSrcFormat.eDataType);
  xTarget.Create(xTrgFormat);
  xComp.EvalKernelDim_2D_1D(xTrgFormat, 32, 8);
  const EResampleClass eClass = ResampleClassOf(xSource);
  if (eClass == EResampleClass::None) QV_THROW("Source image is of invalid type");
  CTextureBinding xBinding(xSource, true, false, cudaAddressModeClamp);
  LaunchResample<F>(xComp, szName, eClass, xTrgFormat, xTarget.GetDesc(), xSrcFormat,
                    xBinding.Get(), xArg);
}

template <class T, bool bAlongX, int R>
void LaunchRadius(CQvCudaComp& xComp, const char* szName, CQvDeviceImage2D& xTarget,
                  const STexture2D& xSource, int iRadius, const Kernel::SFilterTaps& xTaps,
                  float fNorm) {
  if constexpr (R <= Kernel::kMaxFilterRadius) {
    if (iRadius != R) {
      LaunchRadius<T, bAlongX, R + 1>(xComp, szName, xTarget, xSource, iRadius, xTaps, fNorm);
      return;
    }
    const CQvImageFormat& xFormat = xTarget.GetFormat();
    LaunchPerPixel(xComp, szName, xFormat.iWidth, xFormat.iHeight,
                   Kernel::FConvSep<T, R, bAlongX>{xTarget.GetDesc(), xSource, xTaps, fNorm});
  }
}

template <class T, bool bAlongX>
void LaunchSeparablePass(CQvCudaComp& xComp, const char* szName, CQvDeviceImage2D& xTarget,
                         const STexture2D& xSource, int iRadius, const float* pfTaps, float fNorm) {
  // A radius outside the compiled ones launches nothing.
  if (iRadius < 1 || iRadius > Kernel::kMaxFilterRadius) return;
  Kernel::SFilterTaps xTaps;
  std::memcpy(xTaps.afTap, pfTaps, sizeof(xTaps.afTap));
  xComp.SetKernelDim_Direct(xTarget.GetFormat(), 32, 16);
  if (Device::IsCuda()) {
    LaunchRadius<T, bAlongX, 1>(xComp, szName, xTarget, xSource, iRadius, xTaps, fNorm);
    return;
  }
  const CQvImageFormat& xFormat = xTarget.GetFormat();
  const SDeviceImageDesc2D xTrg = xTarget.GetDesc();
  LaunchHostRows(
      xComp, szName, xFormat.iHeight, xFormat.iWidth * (2 * iRadius + 1), [&](int y0, int y1) {
        Kernel::HostConvSepRows<T>(xTrg, xSource.xImage, xTaps, iRadius, fNorm, bAlongX, y0, y1);
      });
}

}  // namespace

CQvCudaCompConvolve::CQvCudaCompConvolve() = default;

CQvCudaCompConvolve::~CQvCudaCompConvolve() {
  CQvDeviceMMU::QvCudaFree(m_pfMinMax);
}

void CQvCudaCompConvolve::Shrink(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                 int iWidth, int iHeight, bool bSingleSample) {
  try {
    CheckTargetSize(iWidth, iHeight, "Target size of shrink must be positive");
    ResampleInto<Kernel::FShrink>(*this, "Shrink --> Kernel::Shrink", xTarget, xSource, iWidth,
                                  iHeight, bSingleSample);
  } catch (const CQvException& e) {
    QV_RETHROW("Error resizing image", e);
  }
}

void CQvCudaCompConvolve::Resize(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                 int iBorder, int iDivisor) {
  try {
    if (iDivisor == 0) QV_THROW("Divisor of resize must not be 0");
    const CQvImageFormat& xSrcFormat = xSource.GetFormat();
    const int iWidth = (xSrcFormat.iWidth - 2 * iBorder) / iDivisor;
    const int iHeight = (xSrcFormat.iHeight - 2 * iBorder) / iDivisor;
    CheckTargetSize(iWidth, iHeight, "Border and divisor of resize leave no positive size");
    ResampleInto<Kernel::FResize>(*this, "Resize --> Kernel::Resize", xTarget, xSource, iWidth,
                                  iHeight, iBorder);
  } catch (const CQvException& e) {
    QV_RETHROW("Error resizing image", e);
  }
}

void CQvCudaCompConvolve::Apply_Gauss(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                      double dSigma, int iRadius, int iDivisor) {
  try {
    if (iRadius > Kernel::kMaxFilterRadius) QV_THROW("Filtersize too large");
    if (!(dSigma > 0.0)) QV_THROW("Sigma of the gauss filter must be positive");
    if (iDivisor < 1) QV_THROW("Divisor of the gauss filter must be at least 1");
    float afTaps[2 * Kernel::kMaxFilterRadius + 1] = {};
    float fSum = 0.0f;
    for (int i = -iRadius; i <= iRadius; ++i) {
      const float w = static_cast<float>(std::exp(std::pow(i / dSigma, 2.0) * -0.5));
      afTaps[i + iRadius] = w;
      fSum += w;
    }
    const float fNorm = 1.0f / fSum;
    _SeparableConvolution(xTarget, xSource, iRadius, afTaps, fNorm);
    if (iDivisor != 1) {
      CQvDeviceImage2D xTemp(xTarget.GetFormat());
      xTarget.CopyTo(xTemp);
      Resize(xTarget, xTemp, 0, iDivisor);
    }
  } catch (const CQvException& e) {
    QV_RETHROW("Error applying gauss filter", e);
  }
}

void CQvCudaCompConvolve::_SeparableConvolution(CQvDeviceImage2D& xTarget,
                                                const CQvDeviceImage2D& xSource, int iRadius,
                                                const float* pfTaps, float fNorm) {
  try {
    if (&xTarget == &xSource) QV_THROW("Target and source must be different images");
    xTarget.Create(xSource.GetFormat());
    CQvDeviceImage2D xTemp(xSource.GetFormat());
    CTextureBinding xBinding(xSource, false, false, cudaAddressModeClamp);
    // The horizontal pass is stored at the source's precision, then read by the vertical one.
    auto fnPasses = [&](auto xTag) {
      using T = decltype(xTag);
      _LaunchKernelX<T>(xTemp, xBinding.Get(), iRadius, pfTaps, fNorm);
      xBinding.Bind(xTemp, false, false, cudaAddressModeClamp);
      _LaunchKernelY<T>(xTarget, xBinding.Get(), iRadius, pfTaps, fNorm);
    };
    if (xSource.IsOfType<RGBA_uc>())
      fnPasses(RGBA_uc());
    else if (xSource.IsOfType<RGBA_us>())
      fnPasses(RGBA_us());
    else if (xSource.IsOfType<L_uc>(true))
      fnPasses(L_uc());
    else if (xSource.IsOfType<L_us>())
      fnPasses(L_us());
    else
      QV_THROW("Image is of invalid type");
  } catch (const CQvException& e) {
    QV_RETHROW("Error performing convolution", e);
  }
}

template <class T>
void CQvCudaCompConvolve::_LaunchKernelX(CQvDeviceImage2D& xTarget, const STexture2D& xSource,
                                         int iRadius, const float* pfTaps, float fNorm) {
  try {
    LaunchSeparablePass<T, true>(*this, "_LaunchKernelX --> Kernel::ConvNormSepX", xTarget, xSource,
                                 iRadius, pfTaps, fNorm);
  } catch (const CQvException& e) {
    QV_RETHROW("Error launching kernel", e);
  }
}

template <class T>
void CQvCudaCompConvolve::_LaunchKernelY(CQvDeviceImage2D& xTarget, const STexture2D& xSource,
                                         int iRadius, const float* pfTaps, float fNorm) {
  try {
    LaunchSeparablePass<T, false>(*this, "_LaunchKernelY --> Kernel::ConvNormSepY", xTarget,
                                  xSource, iRadius, pfTaps, fNorm);
  } catch (const CQvException& e) {
    QV_RETHROW("Error launching kernel", e);
  }
}

}  // namespace Qv
