#pragma once
// Per-pixel demosaic: the Malvar-He-Cutler linear filter over the 13-sample diamond of radius
// 2, with white-balance gains applied to the raw samples before the correction terms.
// Shared by the CUDA kernel and the host runner.
#include "QvPixel.h"
#include "QvSampling.h"

namespace Qv {
namespace Kernel {

// Phase of a pixel: 0 red site, 1 green in a red row, 2 green in a blue row, 3 blue site.
QV_HD QV_FORCEINLINE int BayerPhase(int32_t ePixelType, int x, int y) {
  const int ix = x & 1, iy = y & 1;
  switch (ePixelType) {
    case EPixelType::BayerRG:
      return ix + 2 * iy;
    case EPixelType::BayerBG:
      return (1 - ix) + 2 * (1 - iy);
    case EPixelType::BayerGR:
      return (1 - ix) + 2 * iy;
    default:  // BayerGB
      return ix + 2 * (1 - iy);
  }
}

// TTarget is RGBA_uc or RGBA_us; S the one-channel class the mosaic is read as.
template <class TTarget, class S>
struct FDemosaic {
  SDeviceImageDesc2D xTarget;
  STexture2D xSource;
  int32_t eBayerType;
  float fRedGain, fGreenGain, fBlueGain;

  QV_HD QV_FORCEINLINE float P(int x, int y) const { return FetchPixel<S>(xSource, x, y).x; }

  QV_HD void operator()(int x, int y) const {
    const int iPhase = BayerPhase(eBayerType, x, y);
    // Gains of the centre (and two away), the horizontal, vertical and diagonal neighbours.
    float c, h, v, d;
    if (iPhase == 0) {
      c = fRedGain, h = fGreenGain, v = fGreenGain, d = fBlueGain;
    } else if (iPhase == 1) {
      c = fGreenGain, h = fRedGain, v = fBlueGain, d = fGreenGain;
    } else if (iPhase == 2) {
      c = fGreenGain, h = fBlueGain, v = fRedGain, d = fGreenGain;
    } else {
      c = fBlueGain, h = fGreenGain, v = fGreenGain, d = fRedGain;
    }
    // Each product added to a sum is one fused multiply-add, in the order of the terms.
    const float C = c * P(x, y);
    const float X = fmaf(c, P(x + 2, y), c * P(x - 2, y));
    const float Y = fmaf(c, P(x, y + 2), c * P(x, y - 2));
    const float H = fmaf(h, P(x + 1, y), h * P(x - 1, y));
    const float V = fmaf(v, P(x, y + 1), v * P(x, y - 1));
    float D = d * P(x - 1, y - 1);
    D = fmaf(d, P(x - 1, y + 1), D);
    D = fmaf(d, P(x + 1, y - 1), D);
    D = fmaf(d, P(x + 1, y + 1), D);
    const float T = fmaf(-2.0f, D, 10.0f * C);

    float r, g, b;
    if (iPhase == 1 || iPhase == 2) {
      const float EH = (fmaf(-2.0f, X, fmaf(8.0f, H, T) + Y)) * 0.0625f;
      const float EV = (fmaf(-2.0f, Y, fmaf(8.0f, V, T) + X)) * 0.0625f;
      g = C;
      r = iPhase == 1 ? EH : EV;
      b = iPhase == 1 ? EV : EH;
    } else {
      const float EG = (fmaf(2.0f, H, fmaf(2.0f, V, 4.0f * C)) - (X + Y)) * 0.125f;
      const float ED = fmaf(-3.0f, X + Y, fmaf(4.0f, D, 12.0f * C)) * 0.0625f;
      g = EG;
      r = iPhase == 0 ? C : ED;
      b = iPhase == 0 ? ED : C;
    }
    StorePixel<TTarget>(xTarget, x, y, make_float4(r, g, b, 1.0f));
  }
};

}  // namespace Kernel
}  // namespace Qv
