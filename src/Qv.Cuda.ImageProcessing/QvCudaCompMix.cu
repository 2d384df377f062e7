// Mix: Mix binds input1 and picks its class T1, _MixA<T1> binds input2 and picks T2, _MixB<T1, T2>
// launches the blend into the target's class, which follows from T1 and T2.
#include <type_traits>

#include "ArithmeticKernels.h"
#include "QvCudaCompConvolve.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "TextureBinding.h"

namespace Qv {
namespace {

const char* const kMixLabel = "_MixB --> Kernel::Mix";

// Calls fn with a tag of the image's class, tested in the order RGBA_uc, RGBA_us, RGBA_f,
// L_uc, L_us, L_f (bayer images are none of them); false when there is none.
template <class F>
bool WithMixClass(const CQvDeviceImage2D& xImage, F&& fn) {
  if (xImage.IsOfType<RGBA_uc>())
    fn(RGBA_uc());
  else if (xImage.IsOfType<RGBA_us>())
    fn(RGBA_us());
  else if (xImage.IsOfType<RGBA_f>())
    fn(RGBA_f());
  else if (xImage.IsOfType<L_uc>())
    fn(L_uc());
  else if (xImage.IsOfType<L_us>())
    fn(L_us());
  else if (xImage.IsOfType<L_f>())
    fn(L_f());
  else
    return false;
  return true;
}

// The target's class follows from the inputs' classes: the first of RGBA_uc, RGBA_us, RGBA_f,
// L_us, L_f, L_uc that either input has. So one kernel runs for each pair: 6 x 6 of them.
template <class T>
constexpr int MixRank() {
  if constexpr (std::is_same_v<T, RGBA_uc>) return 0;
  if constexpr (std::is_same_v<T, RGBA_us>) return 1;
  if constexpr (std::is_same_v<T, RGBA_f>) return 2;
  if constexpr (std::is_same_v<T, L_us>) return 3;
  if constexpr (std::is_same_v<T, L_f>) return 4;
  return 5;
}
template <class T1, class T2>
using MixTarget = std::conditional_t<MixRank<T1>() <= MixRank<T2>(), T1, T2>;
static_assert(std::is_same_v<MixTarget<L_uc, L_f>, L_f> &&
              std::is_same_v<MixTarget<L_us, RGBA_f>, RGBA_f> &&
              std::is_same_v<MixTarget<RGBA_us, RGBA_uc>, RGBA_uc>);

// Creates the target in class T3 at input1's size and runs the blend of T1 and T2 into it.
template <class T1, class T2, class T3>
void RunMix(CQvCudaComp& xComp, CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput1,
            const CQvDeviceImage2D& xInput2, float fWeight, bool bBlackIsTransparent,
            const STexture2D& xTexture1, const STexture2D& xTexture2) {
  const CQvImageFormat& xFormat1 = xInput1.GetFormat();
  const CQvImageFormat xTrgFormat(xFormat1.iWidth, xFormat1.iHeight, T3::ePixelType, T3::eDataType);
  // Re-creating an input in another format would free what the kernel is about to read.
  if ((&xTarget == &xInput1 || &xTarget == &xInput2) && !(xTarget.GetFormat() == xTrgFormat))
    QV_THROW("The target may be an input image only if it has the format of the result");
  xTarget.Create(xTrgFormat);
  xComp.EvalKernelDim_2D_1D(xFormat1, 32, 8);
  if (Device::IsCuda()) {
    LaunchPerPixel(xComp, kMixLabel, xFormat1.iWidth, xFormat1.iHeight,
                   Kernel::FMix<T1, T2, T3>{xTarget.GetDesc(), xTexture1, xTexture2, fWeight,
                                            bBlackIsTransparent});
    return;
  }
  // Same-sized inputs: the point fetches read the pixels themselves.
  const SDeviceImageDesc2D xTrg = xTarget.GetDesc(), xIn1 = xTexture1.xImage,
                           xIn2 = xTexture2.xImage;
  const int w = xFormat1.iWidth;
  LaunchHostRows(xComp, kMixLabel, xFormat1.iHeight, w, [&](int y0, int y1) {
    Kernel::HostColourRowPairs<T1, T2>(
        xIn1, xIn2, y0, y1, [&](int y, float* const* pa, const float* const* pb) {
          Kernel::HostMixRow(pa[0], pa[1], pa[2], pb[0], pb[1], pb[2], fWeight, bBlackIsTransparent,
                             w);
          Kernel::HostStoreColourRow<T3>(xTrg, y, pa[0], pa[1], pa[2]);
        });
  });
}

}  // namespace

template <class T1>
void CQvCudaCompConvolve::_MixA(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput1,
                                const CQvDeviceImage2D& xInput2, float fWeight,
                                bool bBlackIsTransparent, const STexture2D& xTexture1) {
  CTextureBinding xBinding;
  const bool bKnown = WithMixClass(xInput2, [&](auto xTag) {
    xBinding.Bind(xInput2, false, false, cudaAddressModeClamp);
    _MixB<T1, decltype(xTag)>(xTarget, xInput1, xInput2, fWeight, bBlackIsTransparent, xTexture1,
                              xBinding.Get());
  });
  if (!bKnown) QV_THROW("Input images are of invalid type. Allowed are RGBA_uc and L_uc");
}

template <class T1, class T2>
void CQvCudaCompConvolve::_MixB(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput1,
                                const CQvDeviceImage2D& xInput2, float fWeight,
                                bool bBlackIsTransparent, const STexture2D& xTexture1,
                                const STexture2D& xTexture2) {
  RunMix<T1, T2, MixTarget<T1, T2>>(*this, xTarget, xInput1, xInput2, fWeight, bBlackIsTransparent,
                                    xTexture1, xTexture2);
}

void CQvCudaCompConvolve::Mix(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput1,
                              const CQvDeviceImage2D& xInput2, float fWeight,
                              bool bBlackIsTransparent) {
  try {
    const CQvImageFormat &xFormat1 = xInput1.GetFormat(), &xFormat2 = xInput2.GetFormat();
    if (xFormat1.iWidth != xFormat2.iWidth || xFormat1.iHeight != xFormat2.iHeight)
      QV_THROW("Input images must be of same size");
    CTextureBinding xBinding;
    const bool bKnown = WithMixClass(xInput1, [&](auto xTag) {
      xBinding.Bind(xInput1, false, false, cudaAddressModeClamp);
      _MixA<decltype(xTag)>(xTarget, xInput1, xInput2, fWeight, bBlackIsTransparent,
                            xBinding.Get());
    });
    if (!bKnown)
      QV_THROW("Input images are of invalid type. Allowed are RGBA_uc, RGBA_us, L_uc and L_us");
  } catch (const CQvException& e) {
    QV_RETHROW("Error performing mix operation", e);
  }
}

}  // namespace Qv
