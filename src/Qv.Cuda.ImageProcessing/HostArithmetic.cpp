// The host backend's mix, subtraction, addition and comparison, row by row: both inputs' rows
// are read into colour planes as the point fetch reads them, combined along the row with the
// functors' arithmetic, then stored as they store. A row is read whole before it is written,
// so a target may be an input.
#include "ArithmeticKernels.h"

namespace Qv {
namespace Kernel {

template <class T>
void HostReadColourRow(const SDeviceImageDesc2D& xImage, int y, float* __restrict pR,
                       float* __restrict pG, float* __restrict pB) {
  const typename T::Element* __restrict p = PixelPtr<T>(xImage, 0, y);
  const int w = xImage.xFormat.iWidth;
  for (int x = 0; x < w; ++x) {
    const typename T::Element* q = p + static_cast<size_t>(T::iChannels) * x;
    pR[x] = ReadChannel<T>(q[0]);
    pG[x] = ReadChannel<T>(q[T::iChannels == 4 ? 1 : 0]);
    pB[x] = ReadChannel<T>(q[T::iChannels == 4 ? 2 : 0]);
  }
}

void HostMixRow(float* __restrict pR, float* __restrict pG, float* __restrict pB,
                const float* __restrict pR2, const float* __restrict pG2,
                const float* __restrict pB2, float fWeight, bool bBlackIsTransparent, int w) {
  for (int x = 0; x < w; ++x) {
    const float fW = MixWeightOf(pR2[x], pG2[x], pB2[x], fWeight, bBlackIsTransparent);
    pR[x] = MixChannel(pR[x], pR2[x], fW, fWeight);
    pG[x] = MixChannel(pG[x], pG2[x], fW, fWeight);
    pB[x] = MixChannel(pB[x], pB2[x], fW, fWeight);
  }
}

template <class T>
void HostDivideRow(const float* __restrict pIn, typename T::Element* __restrict pOut,
                   float fDivisor, int w) {
  for (int x = 0; x < w; ++x) pOut[x] = StoreChannel<T>(pIn[x] / fDivisor);
}

template <class T>
void HostIncrementRow(const typename T::Element* __restrict pIn, float* __restrict pAccumulator,
                      int w) {
  for (int x = 0; x < w; ++x) pAccumulator[x] = ReadChannel<T>(pIn[x]) + pAccumulator[x];
}

template void HostDivideRow<L_uc>(const float*, unsigned char*, float, int);
template void HostDivideRow<L_us>(const float*, unsigned short*, float, int);
template void HostIncrementRow<L_uc>(const unsigned char*, float*, int);
template void HostIncrementRow<L_us>(const unsigned short*, float*, int);

void HostSubtractRow(float* const* pa, const float* const* pb, float fScale, float fOffset, int w) {
  for (int c = 0; c < 3; ++c) {
    float* __restrict p = pa[c];
    const float* __restrict q = pb[c];
    for (int x = 0; x < w; ++x) p[x] = SubtractChannel(p[x], q[x], fScale, fOffset);
  }
}

void HostAddRow(float* const* pa, const float* const* pb, int w) {
  for (int c = 0; c < 3; ++c) {
    float* __restrict p = pa[c];
    const float* __restrict q = pb[c];
    for (int x = 0; x < w; ++x) p[x] = p[x] + q[x];
  }
}

void HostCompareRow(unsigned char* __restrict pOut, const float* const* pa, const float* const* pb,
                    float fThreshold, bool bColour, int w) {
  const float* __restrict pR = pa[0], * __restrict pG = pa[1], * __restrict pB = pa[2];
  const float* __restrict qR = pb[0], * __restrict qG = pb[1], * __restrict qB = pb[2];
  for (int x = 0; x < w; ++x) {
    bool bDiffers = Differs(pR[x], qR[x], fThreshold);
    if (bColour)
      bDiffers = bDiffers && Differs(pG[x], qG[x], fThreshold) && Differs(pB[x], qB[x], fThreshold);
    pOut[x] = CompareMask(bDiffers);
  }
}

template <class T>
void HostStoreColourRow(const SDeviceImageDesc2D& xImage, int y, const float* __restrict pR,
                        const float* __restrict pG, const float* __restrict pB) {
  typename T::Element* __restrict p = PixelPtr<T>(xImage, 0, y);
  const int w = xImage.xFormat.iWidth;
  if constexpr (T::iChannels == 1) {
    for (int x = 0; x < w; ++x) p[x] = StoreChannel<T>(pR[x]);
  } else if constexpr (T::bIsFloat) {
    for (int x = 0; x < w; ++x)
      p[4 * x] = pR[x], p[4 * x + 1] = pG[x], p[4 * x + 2] = pB[x], p[4 * x + 3] = 1.0f;
  } else {
    for (int x = 0; x < w; ++x) HostStoreRgb<T>(p + 4 * x, pR[x], pG[x], pB[x]);
  }
}

#define QV_HOST_COLOUR_ROWS(T)                                                                    \
  template void HostReadColourRow<T>(const SDeviceImageDesc2D&, int, float*, float*, float*);     \
  template void HostStoreColourRow<T>(const SDeviceImageDesc2D&, int, const float*, const float*, \
                                      const float*);
QV_HOST_COLOUR_ROWS(RGBA_uc)
QV_HOST_COLOUR_ROWS(RGBA_us)
QV_HOST_COLOUR_ROWS(RGBA_f)
QV_HOST_COLOUR_ROWS(L_uc)
QV_HOST_COLOUR_ROWS(L_us)
QV_HOST_COLOUR_ROWS(L_f)

}  // namespace Kernel
}  // namespace Qv
