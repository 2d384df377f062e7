#pragma once
// The two template levels of CQvCudaCompConvolve::Mix: _MixA<T1> binds input2 and picks T2,
// _MixB<T1, T2> picks the target's class T3 and launches. Two units instantiate _MixA, three
// classes of input1 each, so that the 216 kernels build on two cores at once.
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
  LaunchPerPixel(xComp, kMixLabel, xFormat1.iWidth, xFormat1.iHeight,
                 Kernel::FMix<T1, T2, T3>{xTarget.GetDesc(), xTexture1, xTexture2, fWeight,
                                          bBlackIsTransparent});
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

// The target's class is chosen at run time from the inputs, first match: RGBA_uc, RGBA_us,
// RGBA_f, L_us, L_f, L_uc. So every (T1, T2, T3) has its kernel: 6 x 6 x 6 of them.
template <class T1, class T2>
void CQvCudaCompConvolve::_MixB(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput1,
                                const CQvDeviceImage2D& xInput2, float fWeight,
                                bool bBlackIsTransparent, const STexture2D& xTexture1,
                                const STexture2D& xTexture2) {
  auto fnEither = [&](auto xTag) {
    using T = decltype(xTag);
    return xInput1.IsOfType<T>() || xInput2.IsOfType<T>();
  };
  auto fnRun = [&](auto xTag) {
    RunMix<T1, T2, decltype(xTag)>(*this, xTarget, xInput1, xInput2, fWeight, bBlackIsTransparent,
                                   xTexture1, xTexture2);
  };
  if (fnEither(RGBA_uc()))
    fnRun(RGBA_uc());
  else if (fnEither(RGBA_us()))
    fnRun(RGBA_us());
  else if (fnEither(RGBA_f()))
    fnRun(RGBA_f());
  else if (fnEither(L_us()))
    fnRun(L_us());
  else if (fnEither(L_f()))
    fnRun(L_f());
  else
    fnRun(L_uc());
}

}  // namespace Qv
