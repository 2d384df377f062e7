#pragma once
// Per-pixel dense convolution and Sobel, shared by the CUDA kernels and the host runner. Both
// write L_f targets unscaled and unclamped; the edge repeats outside the image.
#include "QvPixel.h"
#include "QvSampling.h"

namespace Qv {
namespace Kernel {

// Correlation with an N x N filter, rows outer: s = c[j N + i] x p(x + i - o, y + j - o) + s
// with o = (N - 1) / 2, so the centre of an even filter lies towards the top left.
template <int N>
struct FConvolution {
  SDeviceImageDesc2D xTarget;
  STexture2D xSource;
  float afCoefficient[N * N];

  QV_HD void operator()(int x, int y) const {
    constexpr int o = (N - 1) / 2;
    float s = 0.0f;
#if defined(__CUDA_ARCH__)
#pragma unroll
#endif
    for (int j = 0; j < N; ++j) {
#if defined(__CUDA_ARCH__)
#pragma unroll
#endif
      for (int i = 0; i < N; ++i)
        s = fmaf(afCoefficient[j * N + i], FetchPixel<L_f>(xSource, x + i - o, y + j - o).x, s);
    }
    *PixelPtr<L_f>(xTarget, x, y) = s;
  }
};

// The first channel of pixel (x, y) of an image of class T, normalized, the edge repeated
// outside: what a fetch at the pixel centre returns, point or linear filter alike.
template <class T>
QV_HD QV_FORCEINLINE float FirstChannelClamped(const SDeviceImageDesc2D& xImage, int x, int y) {
  x = x < 0 ? 0 : (x >= xImage.xFormat.iWidth ? xImage.xFormat.iWidth - 1 : x);
  y = y < 0 ? 0 : (y >= xImage.xFormat.iHeight ? xImage.xFormat.iHeight - 1 : y);
  return ReadChannel<T>(PixelPtr<T>(xImage, x, y)[0]);
}

// Gradient magnitude from the 3 x 3 neighbourhood, rows a b c / d . f / g h k: a step from 0
// to 1 gives 4. Each gradient is the difference of two sums formed the same way, so that equal
// sides cancel exactly and a flat image gives 0; the factors 2 are exact.
QV_HD QV_FORCEINLINE float SobelSide(float fOuter1, float fInner, float fOuter2) {
  return fmaf(2.0f, fInner, fOuter1) + fOuter2;
}

QV_HD QV_FORCEINLINE float SobelMagnitude(float a, float b, float c, float d, float f, float g,
                                          float h, float k) {
  const float fGx = SobelSide(c, f, k) - SobelSide(a, d, g);
  const float fGy = SobelSide(a, b, c) - SobelSide(g, h, k);
  return sqrtf(fmaf(fGy, fGy, fGx * fGx));
}

// The host backend's correlation with an N x N filter over target rows [y0, y1), bit for bit
// FConvolution's: each coefficient adds its product to a whole row's sums, rows outer.
void HostConvolutionRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                         const float* pfCoefficients, int N, int y0, int y1);

// The host backend's Sobel of target rows [y0, y1): SobelMagnitude of the clamped 3 x 3
// neighbourhood, as the CUDA kernel reads it through a shared tile; the source's rows read once
// each, one loop over a row. Defined for every class WithFirstChannelClass takes.
template <class TSrc>
void HostSobelRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource, int y0,
                   int y1);

}  // namespace Kernel
}  // namespace Qv
