#pragma once
#include "QvCudaComp.h"
#include "QvDeviceImage2D.h"
#include "QvSampling.h"

namespace Qv {

// Resampling and separable filtering of device images.
class CQvCudaCompConvolve : public CQvCudaComp {
 public:
  CQvCudaCompConvolve();
  ~CQvCudaCompConvolve() override;

  // Brings the source to iWidth x iHeight: one linear-filtered sample a pixel, or a box of
  // (n + 1) x (n + 1) samples. Classes RGBA_uc, L_uc, L_us, L_f and bayer UByte.
  void Shrink(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource, int iWidth, int iHeight,
              bool bSingleSample);
  // Cuts iBorder pixels from every side and divides the rest by iDivisor.
  void Resize(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource, int iBorder,
              int iDivisor);
  // Gaussian blur of radius 1 to 11, then an optional reduction by iDivisor through Resize.
  // Classes RGBA_uc, RGBA_us, L_uc (bayer UByte too), L_us.
  void Apply_Gauss(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource, double dSigma,
                   int iRadius, int iDivisor);

 private:
  void _SeparableConvolution(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                             int iRadius, const float* pfTaps, float fNorm);
  // One pass of the separable filter into xTarget, reading the bound texture.
  template <class T>
  void _LaunchKernelX(CQvDeviceImage2D& xTarget, const STexture2D& xSource, int iRadius,
                      const float* pfTaps, float fNorm);
  template <class T>
  void _LaunchKernelY(CQvDeviceImage2D& xTarget, const STexture2D& xSource, int iRadius,
                      const float* pfTaps, float fNorm);
};

}  // namespace Qv
