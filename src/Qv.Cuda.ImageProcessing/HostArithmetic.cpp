// The host backend's mix, row by row: both inputs' rows are read into colour planes as
// FetchColour reads them, blended along the row with FMix's arithmetic, then stored as
// StoreColour stores. A row is read whole before it is written, so a target may be an input.
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
