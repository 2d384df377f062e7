#pragma once
#include "QvCudaComp.h"
#include "QvDeviceImage2D.h"
#include "QvMatrix.h"
#include "QvSampling.h"

namespace Qv {

// Resampling, filtering and pixelwise arithmetic of device images.
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

  // Blend of two images of equal size and any classes: (1 - weight) input2 + weight input1,
  // where a black input2 pixel takes input1 alone if bBlackIsTransparent. The target gets the
  // class that is written (RGBA_uc, RGBA_us, RGBA_f, L_us, L_f, L_uc: the first that an
  // input has).
  void Mix(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput1,
           const CQvDeviceImage2D& xInput2, float fWeight, bool bBlackIsTransparent);
  // amount x source + (1 - amount) x Gauss(source, sigma): unsharp mask, sigma at most 10.
  void Sharpening(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource, float fSigma,
                  float fAmount);
  // The float accumulator (L_f or float bayer) divided into an existing 8- or 16-bit one-channel
  // target.
  void Divide(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput, float fDivisor);
  // Adds a one-channel 8- or 16-bit image, normalized, to an existing float accumulator.
  void Increment(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput);
  // (a - b) x scale + offset per channel; RGBA_uc, L_uc, L_f.
  void Subtract(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xA, const CQvDeviceImage2D& xB,
                float fScale, float fOffset);
  // a + b per channel, saturating in the store; RGBA_uc, L_uc.
  void Add(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xA, const CQvDeviceImage2D& xB);
  // L_uc target: 255 where |a - b| > threshold (in R, G and B alike for RGBA), else 51.
  void Compare(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xA, const CQvDeviceImage2D& xB,
               float fThreshold);
  // Correlation of an L_f image with an N x N filter, N from 2 to 16; for even N the centre
  // lies towards the top left. Coefficients go to the device in single precision.
  template <class T, int N>
  void Convolution(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                   const tmat<T, N>& xMatrix);
  // Gradient magnitude of the first channel, normalized, into an L_f image.
  void Sobel(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource);
  // Smallest and largest sample of one channel that is neither 0 nor NaN, in normalized units;
  // both NaN when there is none. L_f, RGBA_f, L_uc, RGBA_uc.
  void GetImageMinMax(float& fMinimum, float& fMaximum, unsigned int uChannel,
                      const CQvDeviceImage2D& xImage);

 private:
  template <class T1>
  void _MixA(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput1,
             const CQvDeviceImage2D& xInput2, float fWeight, bool bBlackIsTransparent,
             const STexture2D& xTexture1);
  template <class T1, class T2>
  void _MixB(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput1,
             const CQvDeviceImage2D& xInput2, float fWeight, bool bBlackIsTransparent,
             const STexture2D& xTexture1, const STexture2D& xTexture2);
  void _Convolution(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                    const float* pfCoefficients, int iSize);

  void _SeparableConvolution(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                             int iRadius, const float* pfTaps, float fNorm);
  // One pass of the separable filter into xTarget, reading the bound texture.
  template <class T>
  void _LaunchKernelX(CQvDeviceImage2D& xTarget, const STexture2D& xSource, int iRadius,
                      const float* pfTaps, float fNorm);
  template <class T>
  void _LaunchKernelY(CQvDeviceImage2D& xTarget, const STexture2D& xSource, int iRadius,
                      const float* pfTaps, float fNorm);

  // Minimum and maximum of GetImageMinMax, kept from call to call.
  float* m_pfMinMax = nullptr;
};

template <class T, int N>
void CQvCudaCompConvolve::Convolution(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                      const tmat<T, N>& xMatrix) {
  static_assert(N >= 2 && N <= 16, "filters of 2 x 2 to 16 x 16 coefficients");
  float afCoefficients[N * N];
  for (int k = 0; k < N * N; ++k) afCoefficients[k] = static_cast<float>(xMatrix.m[k]);
  _Convolution(xTarget, xSource, afCoefficients, N);
}

}  // namespace Qv
