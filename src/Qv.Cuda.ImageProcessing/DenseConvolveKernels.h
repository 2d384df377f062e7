#pragma once
// Per-pixel dense convolution and Sobel, shared by the CUDA kernels and the host runner. Both
// write L_f targets unscaled and unclamped; clamp addressing repeats the edge.
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

// Gradient magnitude of the first channel of any class TSrc: a step from 0 to full scale
// gives 4. Each gradient is the difference of two sums formed the same way, so that equal
// sides cancel exactly and a flat image gives 0; the factors 2 are exact.
template <class TSrc>
struct FSobel {
  SDeviceImageDesc2D xTarget;
  STexture2D xSource;

  QV_HD QV_FORCEINLINE float P(int x, int y) const { return FetchPixel<TSrc>(xSource, x, y).x; }
  static QV_HD QV_FORCEINLINE float Side(float fOuter1, float fInner, float fOuter2) {
    return fmaf(2.0f, fInner, fOuter1) + fOuter2;
  }

  QV_HD void operator()(int x, int y) const {
    const float a = P(x - 1, y - 1), b = P(x, y - 1), c = P(x + 1, y - 1);
    const float d = P(x - 1, y), f = P(x + 1, y);
    const float g = P(x - 1, y + 1), h = P(x, y + 1), k = P(x + 1, y + 1);
    const float fGx = Side(c, f, k) - Side(a, d, g);
    const float fGy = Side(a, b, c) - Side(g, h, k);
    *PixelPtr<L_f>(xTarget, x, y) = sqrtf(fmaf(fGy, fGy, fGx * fGx));
  }
};

}  // namespace Kernel
}  // namespace Qv
