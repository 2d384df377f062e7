#include "MixDispatch.cuh"

namespace Qv {

// Input1 of an L class is instantiated in QvCudaCompMixL.cu.
extern template void CQvCudaCompConvolve::_MixA<L_uc>(CQvDeviceImage2D&, const CQvDeviceImage2D&,
                                                      const CQvDeviceImage2D&, float, bool,
                                                      const STexture2D&);
extern template void CQvCudaCompConvolve::_MixA<L_us>(CQvDeviceImage2D&, const CQvDeviceImage2D&,
                                                      const CQvDeviceImage2D&, float, bool,
                                                      const STexture2D&);
extern template void CQvCudaCompConvolve::_MixA<L_f>(CQvDeviceImage2D&, const CQvDeviceImage2D&,
                                                     const CQvDeviceImage2D&, float, bool,
                                                     const STexture2D&);

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
