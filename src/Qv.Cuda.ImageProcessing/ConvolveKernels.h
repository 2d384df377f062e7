#pragma once
// Per-pixel resampling and separable convolution, shared by the CUDA kernels and the host
// runner. Source and target are of the same class T.
#include "QvPixel.h"
#include "QvSampling.h"

namespace Qv {
namespace Kernel {

constexpr int kMaxFilterRadius = 11;

// The taps of one separable filter, 2 x 11 + 1 at most, travel by value.
struct SFilterTaps {
  float afTap[2 * kMaxFilterRadius + 1];
};

// RGBA targets are stored with full-scale alpha; L targets use the first component only.
template <class T>
QV_HD QV_FORCEINLINE void StoreColour(const SDeviceImageDesc2D& xTarget, int x, int y, float4 v) {
  v.w = 1.0f;
  StorePixel<T>(xTarget, x, y, v);
}

template <class T>
struct FShrink {
  SDeviceImageDesc2D xTarget;
  CQvImageFormat xSrcFormat;
  STexture2D xSource;
  bool bSingleSample;
  // The source pixels a target pixel spans, once for all pixels.
  float fx, fy;

  FShrink(const SDeviceImageDesc2D& xTarget_, const CQvImageFormat& xSrcFormat_,
          const STexture2D& xSource_, bool bSingleSample_)
      : xTarget(xTarget_),
        xSrcFormat(xSrcFormat_),
        xSource(xSource_),
        bSingleSample(bSingleSample_),
        fx(static_cast<float>(xSrcFormat_.iWidth) / static_cast<float>(xTarget_.xFormat.iWidth)),
        fy(static_cast<float>(xSrcFormat_.iHeight) / static_cast<float>(xTarget_.xFormat.iHeight)) {
  }

  // The samples of a target pixel along x and along y: one, or (fx + 1) x (fy + 1) where a
  // reduction by exactly two averages 3 x 3.
  QV_HD QV_FORCEINLINE int SamplesX() const { return bSingleSample ? 1 : static_cast<int>(fx) + 1; }
  QV_HD QV_FORCEINLINE int SamplesY() const { return bSingleSample ? 1 : static_cast<int>(fy) + 1; }
  // Texture coordinates of sample i along x of target column x, and of sample j along y.
  QV_HD QV_FORCEINLINE float SampleX(int x, int i) const {
    return static_cast<float>(x) * fx + static_cast<float>(i) + 0.5f;
  }
  QV_HD QV_FORCEINLINE float SampleY(int y, int j) const {
    return static_cast<float>(y) * fy + static_cast<float>(j) + 0.5f;
  }

  QV_HD void operator()(int x, int y) const {
    float4 v;
    if (bSingleSample) {
      v = Fetch<T>(xSource, SampleX(x, 0), SampleY(y, 0));
    } else {
      float4 s = make_float4(0.0f, 0.0f, 0.0f, 0.0f);
      float fCount = 0.0f;
      for (int i = 0; i < SamplesX(); ++i) {
        for (int j = 0; j < SamplesY(); ++j) {
          const float4 t = Fetch<T>(xSource, SampleX(x, i), SampleY(y, j));
          s.x += t.x, s.y += t.y, s.z += t.z, s.w += t.w;
          fCount += 1.0f;
        }
      }
      v = make_float4(s.x / fCount, s.y / fCount, s.z / fCount, s.w / fCount);
    }
    StoreColour<T>(xTarget, x, y, v);
  }
};

// A separable resampling through the linear filter, for the host backend's rows: the texture
// coordinate of sample i along x of target column x at pfX[x nx + i], of sample j along y of
// target row y at pfY[y ny + j]; each target pixel the mean of its nx x ny samples, or with
// bAverage false the one sample itself.
struct SResampleAxes {
  const float* pfX;
  int nx;
  const float* pfY;
  int ny;
  bool bAverage;
};

// The host backend's resampling of target rows [y0, y1), bit for bit what FShrink and FResize
// give; defined for every class they take.
template <class T>
void HostResampleRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                      const SResampleAxes& xAxes, int y0, int y1);

template <class T>
struct FResize {
  SDeviceImageDesc2D xTarget;
  CQvImageFormat xSrcFormat;
  STexture2D xSource;
  int iBorder;

  // One sample a target pixel, at these texture coordinates.
  static constexpr bool bSingleSample = true;
  QV_HD QV_FORCEINLINE int SamplesX() const { return 1; }
  QV_HD QV_FORCEINLINE int SamplesY() const { return 1; }
  QV_HD QV_FORCEINLINE float SampleX(int x, int) const {
    return Along(x, xTarget.xFormat.iWidth, xSrcFormat.iWidth);
  }
  QV_HD QV_FORCEINLINE float SampleY(int y, int) const {
    return Along(y, xTarget.xFormat.iHeight, xSrcFormat.iHeight);
  }

  QV_HD void operator()(int x, int y) const {
    StoreColour<T>(xTarget, x, y, Fetch<T>(xSource, SampleX(x, 0), SampleY(y, 0)));
  }

 private:
  QV_HD QV_FORCEINLINE float Along(int i, int iTarget, int iSource) const {
    const float fRange = static_cast<float>(iSource - 2 * iBorder);
    const float u = (static_cast<float>(i) + 0.5f) / static_cast<float>(iTarget);
    return (static_cast<float>(iBorder) + fmaf(u, fRange, -0.5f)) + 0.5f;
  }
};

// One pass of a separable filter of radius R: along x when bAlongX, else along y.
template <class T, int R, bool bAlongX>
struct FConvSep {
  SDeviceImageDesc2D xTarget;
  STexture2D xSource;
  SFilterTaps xTaps;
  float fNorm;

  QV_HD void operator()(int x, int y) const {
    float4 s = make_float4(0.0f, 0.0f, 0.0f, 0.0f);
#if defined(__CUDA_ARCH__)
#pragma unroll
#endif
    for (int k = 0; k <= 2 * R; ++k) {
      const float4 t =
          bAlongX ? FetchPixel<T>(xSource, x + k - R, y) : FetchPixel<T>(xSource, x, y + k - R);
      const float w = xTaps.afTap[k];
      s.x = fmaf(w, t.x, s.x);
      s.y = fmaf(w, t.y, s.y);
      s.z = fmaf(w, t.z, s.z);
    }
    StoreColour<T>(xTarget, x, y, make_float4(s.x * fNorm, s.y * fNorm, s.z * fNorm, 1.0f));
  }
};

// The host backend's pass of a separable filter over target rows [y0, y1), bit for bit
// FConvSep's; source and target have the same size. Defined for RGBA_uc, RGBA_us, L_uc, L_us.
template <class T>
void HostConvSepRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                     const SFilterTaps& xTaps, int iRadius, float fNorm, bool bAlongX, int y0,
                     int y1);

}  // namespace Kernel
}  // namespace Qv
