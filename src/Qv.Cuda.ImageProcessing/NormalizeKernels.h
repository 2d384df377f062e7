#pragma once
// Per-pixel normalization by a gray (flat-field) image, shared by the CUDA kernel and the host
// runner.
#include "QvPixel.h"
#include "QvSampling.h"

namespace Qv {
namespace Kernel {

// The classes an input of Normalize may have. Read as four channels the way the texture unit
// returns a fetch of float4: one-channel images read as (v, 0, 0, 1).
enum EReadClass : int {
  kRead_L_uc,
  kRead_L_us,
  kRead_L_f,
  kRead_RGBA_uc,
  kRead_RGBA_us,
  kRead_RGBA_f
};

template <class T>
QV_HD QV_FORCEINLINE float4 FetchAs4(const STexture2D& xTex, int x, int y) {
  float4 c = FetchPixel<T>(xTex, x, y);
  if constexpr (T::iChannels == 1) c.w = 1.0f;
  return c;
}

QV_HD QV_FORCEINLINE float4 FetchAs4(const STexture2D& xTex, int iClass, int x, int y) {
  switch (iClass) {
    case kRead_L_uc:
      return FetchAs4<L_uc>(xTex, x, y);
    case kRead_L_us:
      return FetchAs4<L_us>(xTex, x, y);
    case kRead_L_f:
      return FetchAs4<L_f>(xTex, x, y);
    case kRead_RGBA_uc:
      return FetchAs4<RGBA_uc>(xTex, x, y);
    case kRead_RGBA_us:
      return FetchAs4<RGBA_us>(xTex, x, y);
    default:
      return FetchAs4<RGBA_f>(xTex, x, y);
  }
}

// Every channel is divided, alpha too: this kernel stores alpha as computed.
template <class TOut>
struct FNormalize {
  STexture2D xRaw;
  STexture2D xGray;
  SDeviceImageDesc2D xTarget;
  int iRawClass;
  int iGrayClass;
  bool bUseGray;

  QV_HD void operator()(int x, int y) const {
    float4 a = FetchAs4(xRaw, iRawClass, x, y);
    if (bUseGray) {
      const float4 g = FetchAs4(xGray, iGrayClass, x, y);
      a.x = a.x / g.x;
      a.y = a.y / g.y;
      a.z = a.z / g.z;
      a.w = a.w / g.w;
    }
    StorePixel<TOut>(xTarget, x, y, a);
  }
};

// The host backend's runner of target rows [y0, y1), bit for bit the functor's; defined for
// L_uc, L_us, RGBA_uc and RGBA_us targets.
template <class TOut>
void HostNormalizeRows(const FNormalize<TOut>& fnPixel, int y0, int y1);

}  // namespace Kernel
}  // namespace Qv
