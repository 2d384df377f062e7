#pragma once
// Per-pixel RGBA to YUV conversion, shared by the CUDA kernels and the host runners.
#include <cmath>
#include <cstdint>

#include "QvPixel.h"
#include "QvSampling.h"

namespace Qv {
namespace Kernel {

// Each sum starts with the G term, adds R, then B, as fused multiply-adds: both backends give
// the same bits only with this fixed order.
QV_HD QV_FORCEINLINE float rgbToY(const float4& c) {
  return fmaf(0.114f, c.z, fmaf(0.299f, c.x, 0.587f * c.y));
}

QV_HD QV_FORCEINLINE float rgbToU(const float4& c) {
  return fmaf(0.436f, c.z, fmaf(-0.147f, c.x, -0.289f * c.y)) + 0.5f;
}

QV_HD QV_FORCEINLINE float rgbToV(const float4& c) {
  return fmaf(-0.1f, c.z, fmaf(0.615f, c.x, -0.515f * c.y)) + 0.5f;
}

// Stacked I420 in one Lum image: rows [0, H) luma, [H, Hu) U and [Hu, 1.5 H) V. A chroma
// plane is a flat run of samples taken at every second column of every second source row,
// so with an odd width the run wraps across source rows.
template <class TIn, class TOut>
struct FConvertStacked {
  STexture2D xSource;
  SDeviceImageDesc2D xTarget;
  int iSrcWidth;
  int iSrcHeight;
  int iVStart;

  QV_HD void operator()(int x, int y) const {
    float fValue;
    if (y < iSrcHeight) {
      fValue = rgbToY(FetchPixel<TIn>(xSource, x, y));
    } else {
      const bool bU = y < iVStart;
      const int64_t n = 2 * (static_cast<int64_t>(y - (bU ? iSrcHeight : iVStart)) * iSrcWidth + x);
      // The column is the float remainder, as the product computes it; exact below 2^24.
      const int iCol =
          static_cast<int>(fmodf(static_cast<float>(n), static_cast<float>(iSrcWidth)));
      const int64_t iRow = 2 * (n / iSrcWidth);
      const float4 c =
          Fetch<TIn>(xSource, static_cast<float>(iCol) + 0.5f, static_cast<float>(iRow) + 0.5f);
      fValue = bU ? rgbToU(c) : rgbToV(c);
    }
    *PixelPtr<TOut>(xTarget, x, y) = StoreChannel<TOut>(fValue);
  }
};

// Three separate planes; plane Y governs, chroma from the top left pixel of each 2 x 2 block.
template <class TIn, class TOut>
struct FConvertPlanes {
  STexture2D xSource;
  SDeviceImageDesc2D xPlaneY;
  SDeviceImageDesc2D xPlaneU;
  SDeviceImageDesc2D xPlaneV;

  QV_HD void operator()(int x, int y) const {
    *PixelPtr<TOut>(xPlaneY, x, y) = StoreChannel<TOut>(rgbToY(FetchPixel<TIn>(xSource, x, y)));
    if (x < xPlaneY.xFormat.iWidth / 2 && y < xPlaneY.xFormat.iHeight / 2) {
      const float4 c = FetchPixel<TIn>(xSource, 2 * x, 2 * y);
      *PixelPtr<TOut>(xPlaneU, x, y) = StoreChannel<TOut>(rgbToU(c));
      *PixelPtr<TOut>(xPlaneV, x, y) = StoreChannel<TOut>(rgbToV(c));
    }
  }
};

// The host backend's runners of target rows [y0, y1), bit for bit the functors'; defined for
// RGBA_uc to L_uc and RGBA_us to L_us.
template <class TIn, class TOut>
void HostConvertStackedRows(const FConvertStacked<TIn, TOut>& fnPixel, int y0, int y1);
template <class TIn, class TOut>
void HostConvertPlanesRows(const FConvertPlanes<TIn, TOut>& fnPixel, int y0, int y1);

}  // namespace Kernel
}  // namespace Qv
