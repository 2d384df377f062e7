#pragma once
// Reading and storing pixels, shared by the CUDA kernels and the host runner.
//
// Reading goes through a texture: on the device a texture object, on the host an exact
// emulation of the texture unit (point and linear filter, clamp addressing, normalized
// coordinates, integer channels read as v / M). Storing follows one rule for every kernel:
// s = v * M, s = min(M, s), s = max(s, 0), truncate; a NaN therefore stores M.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "QvCudaDefs.h"
#include "QvDeviceImage2D.h"
#include "QvPixel.h"

#if defined(__CUDACC__)
#include <texture_indirect_functions.h>
#endif

namespace Qv {

// What a kernel gets for one bound image: the texture object on the CUDA backend, and the
// image itself with the sampling state for the host emulation.
struct STexture2D {
  cudaTextureObject_t hTexture;
  SDeviceImageDesc2D xImage;
  int bLinearFilter;
  int bNormalizedCoordinates;
};

template <class T>
QV_HD QV_FORCEINLINE typename T::Element* PixelPtr(const SDeviceImageDesc2D& xDesc, int x, int y) {
  return reinterpret_cast<typename T::Element*>(static_cast<char*>(xDesc.pData) +
                                                static_cast<uint64_t>(y) * xDesc.uPitch) +
         static_cast<int64_t>(x) * T::iChannels;
}

// v / M, correctly rounded, for integer v in [0, M]: the product with the rounded reciprocal is
// off by one unit in the last place for some v, and one fused multiply-add of its remainder puts
// it right. Cheaper than a division on the device; the tests check every 8- and 16-bit value
// against the division.
QV_HD QV_FORCEINLINE float DivideByStoreScale(float v, float fM) {
  const float fReciprocal = 1.0f / fM;
  const float q = v * fReciprocal;
  return fmaf(fmaf(-q, fM, v), fReciprocal, q);
}

template <class T>
QV_HD QV_FORCEINLINE float ReadChannel(typename T::Element v) {
  if constexpr (T::bIsFloat) {
    return static_cast<float>(v);
  } else {
#if defined(__CUDA_ARCH__) || defined(__FMA__) || defined(__aarch64__)
    // Where fused multiply-adds are instructions, the correction is cheaper than a division
    // (in vectors too) and gives its bits.
    return DivideByStoreScale(static_cast<float>(v), T::fStoreScale);
#else
    return static_cast<float>(v) / T::fStoreScale;
#endif
  }
}

// The host's store before the truncation: v * M clamped to [0, M]. fminf(fM, s) and
// fmaxf(s, 0) as comparisons, which stay inline and vectorise: a NaN becomes fM, as fminf
// makes it. Host row runners that pack channels themselves truncate this.
template <class T>
QV_FORCEINLINE float HostClampStoreScaled(float v) {
  const float fM = T::fStoreScale;
  float s = v * fM;
  s = s < fM ? s : fM;
  return s > 0.0f ? s : 0.0f;
}

// StoreChannel's value as a word to pack.
template <class T>
QV_FORCEINLINE uint32_t HostStoreWord(float v) {
  return static_cast<uint32_t>(static_cast<int32_t>(HostClampStoreScaled<T>(v)));
}

// Stores colour (r, g, b) with full alpha at p of an RGBA target, packed into 32-bit words
// that the vectoriser keeps whole: one for 8-bit channels, two for 16-bit ones. p need not be
// aligned for the words.
template <class T>
QV_FORCEINLINE void HostStoreRgb(typename T::Element* p, float r, float g, float b) {
  const uint32_t uR = HostStoreWord<T>(r), uG = HostStoreWord<T>(g), uB = HostStoreWord<T>(b);
  const uint32_t uAlpha = static_cast<uint32_t>(T::fStoreScale);
  if constexpr (sizeof(typename T::Element) == 1) {
    const uint32_t uWord = uR | uG << 8 | uB << 16 | uAlpha << 24;
    std::memcpy(p, &uWord, 4);
  } else {
    const uint32_t uWord0 = uR | uG << 16, uWord1 = uB | uAlpha << 16;
    std::memcpy(p, &uWord0, 4);
    std::memcpy(p + 2, &uWord1, 4);
  }
}

template <class T>
QV_HD QV_FORCEINLINE typename T::Element StoreChannel(float v) {
  if constexpr (T::bIsFloat) {
    return v;
  } else {
#if defined(__CUDA_ARCH__)
    const float fM = T::fStoreScale;
    const float s = fminf(fM, v * fM);
    // The device's conversion to unsigned truncates and takes everything below zero to 0,
    // which is what the max with 0 and the truncation do together.
    return static_cast<typename T::Element>(__float2uint_rz(s));
#else
    return static_cast<typename T::Element>(HostClampStoreScaled<T>(v));
#endif
  }
}

// Stores all channels of v that the class has: x alone for L classes, x, y, z, w for RGBA.
template <class T>
QV_HD QV_FORCEINLINE void StorePixel(const SDeviceImageDesc2D& xDesc, int x, int y, float4 v) {
  typename T::Element* p = PixelPtr<T>(xDesc, x, y);
#if defined(__CUDA_ARCH__)
  // One store a pixel: device rows are aligned, and so is every pixel in them.
  if constexpr (T::iChannels == 4 && sizeof(typename T::Element) == 1) {
    *reinterpret_cast<uchar4*>(p) = make_uchar4(StoreChannel<T>(v.x), StoreChannel<T>(v.y),
                                                StoreChannel<T>(v.z), StoreChannel<T>(v.w));
    return;
  } else if constexpr (T::iChannels == 4 && sizeof(typename T::Element) == 2) {
    *reinterpret_cast<ushort4*>(p) = make_ushort4(StoreChannel<T>(v.x), StoreChannel<T>(v.y),
                                                  StoreChannel<T>(v.z), StoreChannel<T>(v.w));
    return;
  }
#endif
  p[0] = StoreChannel<T>(v.x);
  if constexpr (T::iChannels == 4) {
    p[1] = StoreChannel<T>(v.y);
    p[2] = StoreChannel<T>(v.z);
    p[3] = StoreChannel<T>(v.w);
  }
}

namespace Detail {

template <class T>
QV_FORCEINLINE float4 HostTexel(const SDeviceImageDesc2D& xDesc, int ix, int iy) {
  ix = ix < 0 ? 0 : (ix >= xDesc.xFormat.iWidth ? xDesc.xFormat.iWidth - 1 : ix);
  iy = iy < 0 ? 0 : (iy >= xDesc.xFormat.iHeight ? xDesc.xFormat.iHeight - 1 : iy);
  const typename T::Element* p = PixelPtr<T>(xDesc, ix, iy);
  float4 r;
  r.x = ReadChannel<T>(p[0]);
  if constexpr (T::iChannels == 4) {
    r.y = ReadChannel<T>(p[1]);
    r.z = ReadChannel<T>(p[2]);
    r.w = ReadChannel<T>(p[3]);
  } else {
    r.y = 0.0f;
    r.z = 0.0f;
    r.w = 0.0f;
  }
  return r;
}

// The texture unit keeps the blend weight as 9-bit fixed point with 8 fractional bits.
QV_FORCEINLINE float QuantizeWeight(float fFrac) {
  return std::floor(fFrac * 256.0f + 0.5f) / 256.0f;
}

QV_FORCEINLINE float Blend(float a, float b, float c, float d, float wa, float wb, float wc,
                           float wd) {
  return wa * a + wb * b + wc * c + wd * d;
}

// One axis of the linear filter at texture coordinate c over n texels: the two texels it
// blends, clamped, and the quantized weight of the second.
struct SLinearTap {
  int i0, i1;
  float fWeight;
};

QV_FORCEINLINE SLinearTap LinearTap(float c, int n) {
  const float cb = c - 0.5f;
  const float fc = std::floor(cb);
  const int i = static_cast<int>(fc);
  auto Clamp = [n](int k) { return k < 0 ? 0 : (k >= n ? n - 1 : k); };
  return {Clamp(i), Clamp(i + 1), QuantizeWeight(cb - fc)};
}

// The weights of texels (i0, j0), (i1, j0), (i0, j1), (i1, j1), in Blend's order, from the
// weights a along x and b along y.
QV_FORCEINLINE float4 LinearWeights(float a, float b) {
  return make_float4((1.0f - a) * (1.0f - b), a * (1.0f - b), (1.0f - a) * b, a * b);
}

template <class T>
QV_FORCEINLINE float4 HostFetch(const STexture2D& xTex, float x, float y) {
  const SDeviceImageDesc2D& xDesc = xTex.xImage;
  if (xTex.bNormalizedCoordinates) {
    x = x * static_cast<float>(xDesc.xFormat.iWidth);
    y = y * static_cast<float>(xDesc.xFormat.iHeight);
  }
  if (!xTex.bLinearFilter)
    return HostTexel<T>(xDesc, static_cast<int>(std::floor(x)), static_cast<int>(std::floor(y)));
  const SLinearTap tx = LinearTap(x, xDesc.xFormat.iWidth),
                   ty = LinearTap(y, xDesc.xFormat.iHeight);
  const float4 t00 = HostTexel<T>(xDesc, tx.i0, ty.i0), t10 = HostTexel<T>(xDesc, tx.i1, ty.i0);
  const float4 t01 = HostTexel<T>(xDesc, tx.i0, ty.i1), t11 = HostTexel<T>(xDesc, tx.i1, ty.i1);
  const float4 w = LinearWeights(tx.fWeight, ty.fWeight);
  float4 r;
  r.x = Blend(t00.x, t10.x, t01.x, t11.x, w.x, w.y, w.z, w.w);
  r.y = Blend(t00.y, t10.y, t01.y, t11.y, w.x, w.y, w.z, w.w);
  r.z = Blend(t00.z, t10.z, t01.z, t11.z, w.x, w.y, w.z, w.w);
  r.w = Blend(t00.w, t10.w, t01.w, t11.w, w.x, w.y, w.z, w.w);
  return r;
}

}  // namespace Detail

// Fetch at texture coordinates (x, y); a fetch of pixel (i, j) passes (i + 0.5, j + 0.5).
// L classes return their value in x and 0 in y, z, w.
template <class T>
QV_HD QV_FORCEINLINE float4 Fetch(const STexture2D& xTex, float x, float y) {
#if defined(__CUDA_ARCH__)
  if constexpr (T::iChannels == 4) {
    return tex2D<float4>(xTex.hTexture, x, y);
  } else {
    return make_float4(tex2D<float>(xTex.hTexture, x, y), 0.0f, 0.0f, 0.0f);
  }
#else
  return Detail::HostFetch<T>(xTex, x, y);
#endif
}

template <class T>
QV_HD QV_FORCEINLINE float4 FetchPixel(const STexture2D& xTex, int i, int j) {
#if !defined(__CUDA_ARCH__)
  // A point fetch at a pixel centre reads the pixel, the edge repeated: below 2^22 the
  // emulation's floor of i + 0.5 is i, so the host skips the coordinate arithmetic there.
  constexpr int kExact = 1 << 22;
  if (!xTex.bLinearFilter && !xTex.bNormalizedCoordinates && i > -kExact && i < kExact &&
      j > -kExact && j < kExact)
    return Detail::HostTexel<T>(xTex.xImage, i, j);
#endif
  return Fetch<T>(xTex, static_cast<float>(i) + 0.5f, static_cast<float>(j) + 0.5f);
}

}  // namespace Qv
