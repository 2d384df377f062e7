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

struct SBayerGains {
  float fRed, fGreen, fBlue;
};

// The demosaiced colour of one pixel of phase iPhase. P(dx, dy) is the normalized raw sample at
// offset (dx, dy) from the pixel, edge repeated. Every kernel that demosaics goes through this
// function, so that all of them give the same bytes.
template <class FSample>
QV_HD QV_FORCEINLINE float3 DemosaicPixel(int iPhase, const SBayerGains& xGains, const FSample& P) {
  // Gains of the centre (and two away), the horizontal, vertical and diagonal neighbours.
  float c, h, v, d;
  if (iPhase == 0) {
    c = xGains.fRed, h = xGains.fGreen, v = xGains.fGreen, d = xGains.fBlue;
  } else if (iPhase == 1) {
    c = xGains.fGreen, h = xGains.fRed, v = xGains.fBlue, d = xGains.fGreen;
  } else if (iPhase == 2) {
    c = xGains.fGreen, h = xGains.fBlue, v = xGains.fRed, d = xGains.fGreen;
  } else {
    c = xGains.fBlue, h = xGains.fGreen, v = xGains.fGreen, d = xGains.fRed;
  }
  // Each product added to a sum is one fused multiply-add, in the order of the terms.
  const float C = c * P(0, 0);
  const float X = fmaf(c, P(2, 0), c * P(-2, 0));
  const float Y = fmaf(c, P(0, 2), c * P(0, -2));
  const float H = fmaf(h, P(1, 0), h * P(-1, 0));
  const float V = fmaf(v, P(0, 1), v * P(0, -1));
  float D = d * P(-1, -1);
  D = fmaf(d, P(-1, 1), D);
  D = fmaf(d, P(1, -1), D);
  D = fmaf(d, P(1, 1), D);
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
  return make_float3(r, g, b);
}

// One pixel per call, reading through the texture: for device images the tiled kernel cannot
// take.
// TTarget is RGBA_uc or RGBA_us; S the one-channel class the mosaic is read as.
template <class TTarget, class S>
struct FDemosaic {
  SDeviceImageDesc2D xTarget;
  STexture2D xSource;
  int32_t eBayerType;
  SBayerGains xGains;

  QV_HD void operator()(int x, int y) const {
    const float3 c = DemosaicPixel(BayerPhase(eBayerType, x, y), xGains, [&](int dx, int dy) {
      return FetchPixel<S>(xSource, x + dx, y + dy).x;
    });
    StorePixel<TTarget>(xTarget, x, y, make_float4(c.x, c.y, c.z, 1.0f));
  }
};

// The host backend's demosaic of target rows [y0, y1), bit for bit FDemosaic's; defined for
// RGBA_uc from L_uc and RGBA_us from L_us.
template <class TTarget, class S>
void HostDemosaicRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                      int32_t eBayerType, const SBayerGains& xGains, int y0, int y1);

}  // namespace Kernel
}  // namespace Qv
