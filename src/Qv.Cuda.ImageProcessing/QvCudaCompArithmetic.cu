#include <algorithm>
#include <cmath>

#include "ArithmeticKernels.h"
#include "QvCudaCompConvolve.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "TextureBinding.h"

namespace Qv {
namespace {

bool IsOneChannel(const CQvImageFormat& xFormat) {
  return xFormat.ePixelType == EPixelType::Lum || IsBayerPixelType(xFormat.ePixelType);
}

bool IsOneChannelInteger(const CQvImageFormat& xFormat) {
  return IsOneChannel(xFormat) &&
         (xFormat.eDataType == EDataType::UByte || xFormat.eDataType == EDataType::UShort);
}

bool IsFloatAccumulator(const CQvDeviceImage2D& xImage) {
  return xImage.IsOfType<L_f>(true);
}

int64_t PixelCount(const CQvImageFormat& xFormat) {
  return static_cast<int64_t>(xFormat.iWidth) * xFormat.iHeight;
}

// Divide and Increment launch over the input and are bounded by the target: where the two
// extents overlap.
void LaunchOverBoth(CQvCudaComp& xComp, const CQvImageFormat& xInput, const CQvImageFormat& xTarget,
                    int& iWidth, int& iHeight) {
  xComp.EvalKernelDim_2D_1D(xInput, 32, 8);
  iWidth = std::min(xInput.iWidth, xTarget.iWidth);
  iHeight = std::min(xInput.iHeight, xTarget.iHeight);
}

// fn with L_uc or L_us, the class of a one-channel integer image.
template <class F>
void OfOneChannelClass(const CQvImageFormat& xFormat, const F& fn) {
  if (xFormat.eDataType == EDataType::UByte)
    fn(L_uc());
  else
    fn(L_us());
}

// Rows [0, iHeight) through fnRow(y) on the host workers.
template <class FRow>
void RunHostRows(CQvCudaComp& xComp, const char* szName, int iWidth, int iHeight,
                 const FRow& fnRow) {
  LaunchHostRows(xComp, szName, iHeight, iWidth, [&](int y0, int y1) {
    for (int y = y0; y < y1; ++y) fnRow(y);
  });
}

void CheckSameFormat(const CQvDeviceImage2D& xA, const CQvDeviceImage2D& xB) {
  if (!(xA.GetFormat() == xB.GetFormat())) QV_THROW("Input images must be of same type");
}

// The target of Compare has its own format: as an input it would be freed before it is read.
void CheckNotReplacingInput(const CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xA,
                            const CQvDeviceImage2D& xB, const CQvImageFormat& xTrgFormat) {
  if ((&xTarget == &xA || &xTarget == &xB) && !(xTarget.GetFormat() == xTrgFormat))
    QV_THROW("The target may be an input image only if it has the format of the result");
}

// Binds a and b, and runs F<T> for the first class of the list that a is of (a and b agree).
// On the host, rows at a time: both inputs' rows as colour planes, then fnHostRow(tag, y, a, b).
template <template <class> class F, class... TClasses, class FHostRow, class... TArgs>
bool LaunchPairOfClass(CQvCudaComp& xComp, const char* szName, const CQvDeviceImage2D& xTarget,
                       const CQvDeviceImage2D& xA, const CQvDeviceImage2D& xB,
                       const FHostRow& fnHostRow, TArgs... xArgs) {
  bool bDone = false;
  auto fnTry = [&](auto xTag) {
    using T = decltype(xTag);
    if (bDone || !xA.IsOfType<T>()) return;
    bDone = true;
    CTextureBinding xBindingA(xA, false), xBindingB(xB, false);
    const CQvImageFormat& xFormat = xA.GetFormat();
    const int w = xFormat.iWidth;
    if (Device::IsCuda()) {
      LaunchPerPixel(xComp, szName, w, xFormat.iHeight,
                     F<T>{xTarget.GetDesc(), xBindingA.Get(), xBindingB.Get(), xArgs...});
      return;
    }
    const SDeviceImageDesc2D xDescA = xA.GetDesc(), xDescB = xB.GetDesc();
    LaunchHostRows(xComp, szName, xFormat.iHeight, w, [&](int y0, int y1) {
      Kernel::HostColourRowPairs<T, T>(
          xDescA, xDescB, y0, y1,
          [&](int y, float* const* pa, const float* const* pb) { fnHostRow(xTag, y, pa, pb); });
    });
  };
  (fnTry(TClasses()), ...);
  return bDone;
}

}  // namespace

void CQvCudaCompConvolve::Divide(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput,
                                 float fDivisor) {
  try {
    const CQvImageFormat &xTrgFormat = xTarget.GetFormat(), &xInFormat = xInput.GetFormat();
    if (PixelCount(xTrgFormat) != PixelCount(xInFormat))
      QV_THROW("Input image must be of same size as target");
    if (!IsFloatAccumulator(xInput)) QV_THROW("Input image is of invalid type");
    if (!IsOneChannelInteger(xTrgFormat)) QV_THROW("Target image is of invalid type");
    int iWidth = 0, iHeight = 0;
    LaunchOverBoth(*this, xInFormat, xTrgFormat, iWidth, iHeight);
    CTextureBinding xBinding(xInput, false);
    const char* szName = "Divide --> Kernel::Divide";
    if (!Device::IsCuda()) {
      const SDeviceImageDesc2D xIn = xInput.GetDesc(), xTrg = xTarget.GetDesc();
      OfOneChannelClass(xTrgFormat, [&](auto xTag) {
        using T = decltype(xTag);
        RunHostRows(*this, szName, iWidth, iHeight, [&](int y) {
          Kernel::HostDivideRow<T>(PixelPtr<L_f>(xIn, 0, y), PixelPtr<T>(xTrg, 0, y), fDivisor,
                                   iWidth);
        });
      });
      return;
    }
    if (xTrgFormat.eDataType == EDataType::UByte)
      LaunchPerPixel(*this, szName, iWidth, iHeight,
                     Kernel::FDivide<L_uc>{xTarget.GetDesc(), xBinding.Get(), fDivisor});
    else
      LaunchPerPixel(*this, szName, iWidth, iHeight,
                     Kernel::FDivide<L_us>{xTarget.GetDesc(), xBinding.Get(), fDivisor});
  } catch (const CQvException& e) {
    QV_RETHROW("Error performing divide operation", e);
  }
}

void CQvCudaCompConvolve::Increment(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput) {
  try {
    if (!xTarget.IsValid()) QV_THROW("Target image is NOT valid");
    const CQvImageFormat &xTrgFormat = xTarget.GetFormat(), &xInFormat = xInput.GetFormat();
    if (PixelCount(xTrgFormat) != PixelCount(xInFormat))
      QV_THROW("Input image must be of same size as target");
    if (!IsFloatAccumulator(xTarget)) QV_THROW("Input image is of invalid type");
    if (!IsOneChannelInteger(xInFormat)) QV_THROW("Second input image is of invalid type");
    int iWidth = 0, iHeight = 0;
    LaunchOverBoth(*this, xInFormat, xTrgFormat, iWidth, iHeight);
    CTextureBinding xInputBinding(xInput, false), xTargetBinding(xTarget, false);
    const char* szName = "Increment --> Kernel::Increment";
    if (!Device::IsCuda()) {
      const SDeviceImageDesc2D xIn = xInput.GetDesc(), xTrg = xTarget.GetDesc();
      OfOneChannelClass(xInFormat, [&](auto xTag) {
        using T = decltype(xTag);
        RunHostRows(*this, szName, iWidth, iHeight, [&](int y) {
          Kernel::HostIncrementRow<T>(PixelPtr<T>(xIn, 0, y), PixelPtr<L_f>(xTrg, 0, y), iWidth);
        });
      });
      return;
    }
    if (xInFormat.eDataType == EDataType::UByte)
      LaunchPerPixel(
          *this, szName, iWidth, iHeight,
          Kernel::FIncrement<L_uc>{xTarget.GetDesc(), xInputBinding.Get(), xTargetBinding.Get()});
    else
      LaunchPerPixel(
          *this, szName, iWidth, iHeight,
          Kernel::FIncrement<L_us>{xTarget.GetDesc(), xInputBinding.Get(), xTargetBinding.Get()});
  } catch (const CQvException& e) {
    QV_RETHROW("Error performing increment operation", e);
  }
}

void CQvCudaCompConvolve::Subtract(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xA,
                                   const CQvDeviceImage2D& xB, float fScale, float fOffset) {
  try {
    CheckSameFormat(xA, xB);
    xTarget.Create(xA.GetFormat());
    EvalKernelDim_2D_1D(xA.GetFormat(), 32, 8);
    const SDeviceImageDesc2D xTrg = xTarget.GetDesc();
    auto fnHostRow = [&](auto xTag, int y, float* const* pa, const float* const* pb) {
      Kernel::HostSubtractRow(pa, pb, fScale, fOffset, xTrg.xFormat.iWidth);
      Kernel::HostStoreColourRow<decltype(xTag)>(xTrg, y, pa[0], pa[1], pa[2]);
    };
    if (!LaunchPairOfClass<Kernel::FSubtract, RGBA_uc, L_uc, L_f>(
            *this, "Subtract --> Kernel::Subtract", xTarget, xA, xB, fnHostRow, fScale, fOffset))
      QV_THROW("Invalid input texture types");
  } catch (const CQvException& e) {
    QV_RETHROW("Error substracting images", e);
  }
}

void CQvCudaCompConvolve::Add(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xA,
                              const CQvDeviceImage2D& xB) {
  try {
    CheckSameFormat(xA, xB);
    xTarget.Create(xA.GetFormat());
    EvalKernelDim_2D_1D(xA.GetFormat(), 32, 8);
    const SDeviceImageDesc2D xTrg = xTarget.GetDesc();
    auto fnHostRow = [&](auto xTag, int y, float* const* pa, const float* const* pb) {
      Kernel::HostAddRow(pa, pb, xTrg.xFormat.iWidth);
      Kernel::HostStoreColourRow<decltype(xTag)>(xTrg, y, pa[0], pa[1], pa[2]);
    };
    if (!LaunchPairOfClass<Kernel::FAdd, RGBA_uc, L_uc>(*this, "Add --> Kernel::Add", xTarget, xA,
                                                        xB, fnHostRow))
      QV_THROW("Input images are of invalid type");
  } catch (const CQvException& e) {
    QV_RETHROW("Error performing Mix operation", e);
  }
}

void CQvCudaCompConvolve::Compare(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xA,
                                  const CQvDeviceImage2D& xB, float fThreshold) {
  try {
    CheckSameFormat(xA, xB);
    const CQvImageFormat& xFormat = xA.GetFormat();
    const CQvImageFormat xTrgFormat(xFormat.iWidth, xFormat.iHeight, EPixelType::Lum,
                                    EDataType::UByte);
    CheckNotReplacingInput(xTarget, xA, xB, xTrgFormat);
    xTarget.Create(xTrgFormat);
    EvalKernelDim_2D_1D(xFormat, 32, 8);
    const SDeviceImageDesc2D xTrg = xTarget.GetDesc();
    auto fnHostRow = [&](auto xTag, int y, float* const* pa, const float* const* pb) {
      Kernel::HostCompareRow(PixelPtr<L_uc>(xTrg, 0, y), pa, pb, fThreshold,
                             decltype(xTag)::iChannels == 4, xTrg.xFormat.iWidth);
    };
    if (!LaunchPairOfClass<Kernel::FCompare, RGBA_uc, L_uc, L_f>(
            *this, "Compare --> Kernel::Compare", xTarget, xA, xB, fnHostRow, fThreshold))
      QV_THROW("Invalid input texture types");
  } catch (const CQvException& e) {
    QV_RETHROW("Error compairing images", e);
  }
}

void CQvCudaCompConvolve::Sharpening(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                     float fSigma, float fAmount) {
  try {
    // Sigma 10 gives radius 11, the largest there is. NaN and huge sigmas stop here too.
    const float fRadius = std::ceil(fSigma) + 1.0f;
    if (!(fRadius <= static_cast<float>(Kernel::kMaxFilterRadius)))
      QV_THROW("Filtersize too large");
    Apply_Gauss(xTarget, xSource, static_cast<double>(fSigma), static_cast<int>(fRadius), 1);
    // In place: the blur is input2 and becomes the target pixel by pixel.
    Mix(xTarget, xSource, xTarget, fAmount, false);
  } catch (const CQvException& e) {
    QV_RETHROW("Error performing convolution", e);
  }
}

}  // namespace Qv
