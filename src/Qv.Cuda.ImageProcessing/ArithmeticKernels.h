#pragma once
// Per-pixel mix and arithmetic, shared by the CUDA kernels and the host runner. Each thread
// reads only its own pixel of every input before it writes the target, so a target may be one
// of the inputs where it already has the format it is given.
#include <type_traits>
#include <vector>

#include "ConvolveKernels.h"
#include "QvPixel.h"
#include "QvSampling.h"

namespace Qv {
namespace Kernel {

// R, G, B of an RGBA pixel; an L pixel widened to (v, v, v).
template <class T>
QV_HD QV_FORCEINLINE float4 FetchColour(const STexture2D& xTex, int x, int y) {
  float4 c = FetchPixel<T>(xTex, x, y);
  if constexpr (T::iChannels == 1) c.y = c.z = c.x;
  return c;
}

// (1 - weight) b + a w, w being 1 where b is black and black is transparent. The factor of b
// stays 1 - weight, which such a b makes irrelevant. An L target takes the first channel.
QV_HD QV_FORCEINLINE float MixWeightOf(float br, float bg, float bb, float fWeight,
                                       bool bBlackIsTransparent) {
  return bBlackIsTransparent && br == 0.0f && bg == 0.0f && bb == 0.0f ? 1.0f : fWeight;
}

QV_HD QV_FORCEINLINE float MixChannel(float a, float b, float w, float fWeight) {
  return fmaf(a, w, (1.0f - fWeight) * b);
}

template <class T1, class T2, class T3>
struct FMix {
  SDeviceImageDesc2D xTarget;
  STexture2D xInput1;
  STexture2D xInput2;
  float fWeight;
  bool bBlackIsTransparent;

  QV_HD void operator()(int x, int y) const {
    const float4 a = FetchColour<T1>(xInput1, x, y);
    const float4 b = FetchColour<T2>(xInput2, x, y);
    const float w = MixWeightOf(b.x, b.y, b.z, fWeight, bBlackIsTransparent);
    StoreColour<T3>(xTarget, x, y,
                    make_float4(MixChannel(a.x, b.x, w, fWeight), MixChannel(a.y, b.y, w, fWeight),
                                MixChannel(a.z, b.z, w, fWeight), 1.0f));
  }
};

// The host backend's mix, a row at a time: a row of an image as FetchColour reads it, FMix's
// blend of two such rows into the first, and a row stored as StoreColour stores it. Defined
// for the six classes Mix takes.
template <class T>
void HostReadColourRow(const SDeviceImageDesc2D& xImage, int y, float* pR, float* pG, float* pB);
void HostMixRow(float* pR, float* pG, float* pB, const float* pR2, const float* pG2,
                const float* pB2, float fWeight, bool bBlackIsTransparent, int w);
template <class T>
void HostStoreColourRow(const SDeviceImageDesc2D& xImage, int y, const float* pR, const float* pG,
                        const float* pB);

// The host side of the two-input operations: rows [y0, y1) of two same-sized images of classes
// T1 and T2 read as colour planes pa[0..2] and pb[0..2], then fnRow(y, pa, pb).
template <class T1, class T2, class FRow>
void HostColourRowPairs(const SDeviceImageDesc2D& xImage1, const SDeviceImageDesc2D& xImage2,
                        int y0, int y1, const FRow& fnRow) {
  const size_t w = static_cast<size_t>(xImage1.xFormat.iWidth);
  std::vector<float> afRows(6 * w);
  float* const pa[3] = {afRows.data(), afRows.data() + w, afRows.data() + 2 * w};
  float* const pb[3] = {pa[2] + w, pa[2] + 2 * w, pa[2] + 3 * w};
  for (int y = y0; y < y1; ++y) {
    HostReadColourRow<T1>(xImage1, y, pa[0], pa[1], pa[2]);
    HostReadColourRow<T2>(xImage2, y, pb[0], pb[1], pb[2]);
    fnRow(y, pa, pb);
  }
}

// An 8- or 16-bit one-channel target from a float accumulator.
template <class T>
struct FDivide {
  SDeviceImageDesc2D xTarget;
  STexture2D xInput;
  float fDivisor;

  QV_HD void operator()(int x, int y) const {
    const float v = FetchPixel<L_f>(xInput, x, y).x / fDivisor;
    StorePixel<T>(xTarget, x, y, make_float4(v, 0.0f, 0.0f, 0.0f));
  }
};

// The float accumulator, bound as xAccumulator and written through xTarget, gains the
// normalized input sample, unclamped.
template <class T>
struct FIncrement {
  SDeviceImageDesc2D xTarget;
  STexture2D xInput;
  STexture2D xAccumulator;

  QV_HD void operator()(int x, int y) const {
    const float v = FetchPixel<T>(xInput, x, y).x + FetchPixel<L_f>(xAccumulator, x, y).x;
    *PixelPtr<L_f>(xTarget, x, y) = v;
  }
};

// (a - b) x scale + offset: the difference rounded, then one fused multiply-add.
QV_HD QV_FORCEINLINE float SubtractChannel(float a, float b, float fScale, float fOffset) {
  return fmaf(a - b, fScale, fOffset);
}

template <class T>
struct FSubtract {
  SDeviceImageDesc2D xTarget;
  STexture2D xA;
  STexture2D xB;
  float fScale;
  float fOffset;

  QV_HD void operator()(int x, int y) const {
    const float4 a = FetchPixel<T>(xA, x, y), b = FetchPixel<T>(xB, x, y);
    StoreColour<T>(xTarget, x, y,
                   make_float4(SubtractChannel(a.x, b.x, fScale, fOffset),
                               SubtractChannel(a.y, b.y, fScale, fOffset),
                               SubtractChannel(a.z, b.z, fScale, fOffset), 1.0f));
  }
};

template <class T>
struct FAdd {
  SDeviceImageDesc2D xTarget;
  STexture2D xA;
  STexture2D xB;

  QV_HD void operator()(int x, int y) const {
    const float4 a = FetchPixel<T>(xA, x, y), b = FetchPixel<T>(xB, x, y);
    StoreColour<T>(xTarget, x, y, make_float4(a.x + b.x, a.y + b.y, a.z + b.z, 1.0f));
  }
};

// An L_uc mask written as such: 255 where the images differ by more than the threshold (in
// all of R, G and B for RGBA), else 51.
QV_HD QV_FORCEINLINE unsigned char CompareMask(bool bDiffers) {
  return bDiffers ? 255 : 51;
}

QV_HD QV_FORCEINLINE bool Differs(float a, float b, float fThreshold) {
  return fabsf(a - b) > fThreshold;
}

template <class T>
struct FCompare {
  SDeviceImageDesc2D xTarget;
  STexture2D xA;
  STexture2D xB;
  float fThreshold;

  QV_HD void operator()(int x, int y) const {
    const float4 a = FetchPixel<T>(xA, x, y), b = FetchPixel<T>(xB, x, y);
    bool bDiffers = Differs(a.x, b.x, fThreshold);
    if constexpr (T::iChannels == 4)
      bDiffers = bDiffers && Differs(a.y, b.y, fThreshold) && Differs(a.z, b.z, fThreshold);
    *PixelPtr<L_uc>(xTarget, x, y) = CompareMask(bDiffers);
  }
};

// Host rows of Divide (a float accumulator row into T) and Increment (a T row added to the
// accumulator row, in place).
template <class T>
void HostDivideRow(const float* pIn, typename T::Element* pOut, float fDivisor, int w);
template <class T>
void HostIncrementRow(const typename T::Element* pIn, float* pAccumulator, int w);

// Host rows of Subtract, Add and Compare: a in planes pa[0..2] (overwritten with the result by
// Subtract and Add), b in pb[0..2], as HostReadColourRow reads them.
void HostSubtractRow(float* const* pa, const float* const* pb, float fScale, float fOffset, int w);
void HostAddRow(float* const* pa, const float* const* pb, int w);
void HostCompareRow(unsigned char* pOut, const float* const* pa, const float* const* pb,
                    float fThreshold, bool bColour, int w);

}  // namespace Kernel
}  // namespace Qv
