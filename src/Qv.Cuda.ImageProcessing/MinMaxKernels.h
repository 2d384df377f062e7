#pragma once
// Per-pixel parts of the image minimum and maximum, shared by the CUDA kernel and the host
// runner: the sample of one channel, the running minimum and maximum of the samples that count,
// and the merge into a shared or global pair by a compare-and-swap loop. Minimum and maximum
// are exact operations, so any order of merging gives the same pair.
#include <cstdint>
#include <cstring>

#include "QvPixel.h"
#include "QvSampling.h"

namespace Qv {
namespace Kernel {

constexpr float kInfinity = __builtin_huge_valf();

// Channel C of pixel (x, y), normalized: what a point-sampled fetch returns. Read straight
// from memory, so that a warp's samples come in one coalesced load.
template <class T, int C>
QV_HD QV_FORCEINLINE float MinMaxSample(const SDeviceImageDesc2D& xImage, int x, int y) {
  static_assert(C >= 0 && C < T::iChannels, "a channel of the class");
  return ReadChannel<T>(PixelPtr<T>(xImage, x, y)[C]);
}

// Starts at the infinities rather than the largest float, so that an image of infinities or of
// the largest float alone reports what it holds; nothing counted leaves both as they started.
struct SMinMax {
  float fMin = kInfinity;
  float fMax = -kInfinity;

  // 0 and NaN are not counted. With neither, the comparisons are fminf and fmaxf exactly, and
  // stay inline on the host.
  QV_HD QV_FORCEINLINE void Take(float v) {
    if (v == 0.0f || v != v) return;
    fMin = v < fMin ? v : fMin;
    fMax = v > fMax ? v : fMax;
  }
  QV_HD QV_FORCEINLINE bool IsEmpty() const { return fMin == kInfinity && fMax == -kInfinity; }
};

// *p = min(*p, v) (bLess) or max(*p, v), atomically. The stored value only moves one way, so
// a stale first read can only cost one more turn of the loop.
template <bool bLess>
QV_HD QV_FORCEINLINE void AtomicMinMax(float* p, float v) {
#if defined(__CUDA_ARCH__)
  int* pi = reinterpret_cast<int*>(p);
  int iOld = *reinterpret_cast<volatile int*>(pi);
  while (bLess ? v < __int_as_float(iOld) : v > __int_as_float(iOld)) {
    const int iSeen = atomicCAS(pi, iOld, __float_as_int(v));
    if (iSeen == iOld) break;
    iOld = iSeen;
  }
#else
  uint32_t* pu = reinterpret_cast<uint32_t*>(p);
  uint32_t uOld = __atomic_load_n(pu, __ATOMIC_RELAXED), uNew = 0;
  std::memcpy(&uNew, &v, sizeof(v));
  for (;;) {
    float fOld = 0.0f;
    std::memcpy(&fOld, &uOld, sizeof(fOld));
    if (!(bLess ? v < fOld : v > fOld)) break;
    if (__atomic_compare_exchange_n(pu, &uOld, uNew, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
      break;
  }
#endif
}

QV_HD QV_FORCEINLINE void MergeMinMax(float* pfMin, float* pfMax, const SMinMax& xPair) {
  AtomicMinMax<true>(pfMin, xPair.fMin);
  AtomicMinMax<false>(pfMax, xPair.fMax);
}

}  // namespace Kernel
}  // namespace Qv
