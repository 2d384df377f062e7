// The host backend's normalization, row by row: the raw and the gray row are read once into
// float4s as the point fetch reads them (edges repeated where an image is smaller than the
// target, one-channel images as (v, 0, 0, 1)), divided channel by channel and stored.
#include <algorithm>
#include <vector>

#include "NormalizeKernels.h"

namespace Qv {
namespace Kernel {
namespace {

template <class T>
void ReadRowAs4(const SDeviceImageDesc2D& xImage, int y, int w, float4* pOut) {
  const int iWidth = xImage.xFormat.iWidth, iHeight = xImage.xFormat.iHeight;
  const typename T::Element* p = PixelPtr<T>(xImage, 0, std::min(std::max(y, 0), iHeight - 1));
  const int n = std::min(w, iWidth);
  for (int x = 0; x < n; ++x) {
    const typename T::Element* q = p + static_cast<size_t>(T::iChannels) * x;
    if constexpr (T::iChannels == 4)
      pOut[x] = make_float4(ReadChannel<T>(q[0]), ReadChannel<T>(q[1]), ReadChannel<T>(q[2]),
                            ReadChannel<T>(q[3]));
    else
      pOut[x] = make_float4(ReadChannel<T>(q[0]), 0.0f, 0.0f, 1.0f);
  }
  for (int x = n; x < w; ++x) pOut[x] = pOut[n - 1];
}

void ReadRowAs4(const SDeviceImageDesc2D& xImage, int iClass, int y, int w, float4* pOut) {
  switch (iClass) {
    case kRead_L_uc:
      return ReadRowAs4<L_uc>(xImage, y, w, pOut);
    case kRead_L_us:
      return ReadRowAs4<L_us>(xImage, y, w, pOut);
    case kRead_L_f:
      return ReadRowAs4<L_f>(xImage, y, w, pOut);
    case kRead_RGBA_uc:
      return ReadRowAs4<RGBA_uc>(xImage, y, w, pOut);
    case kRead_RGBA_us:
      return ReadRowAs4<RGBA_us>(xImage, y, w, pOut);
    default:
      return ReadRowAs4<RGBA_f>(xImage, y, w, pOut);
  }
}

void DivideRow(float* __restrict pRaw, const float* __restrict pGray, int n) {
  for (int i = 0; i < n; ++i) pRaw[i] = pRaw[i] / pGray[i];
}

}  // namespace

template <class TOut>
void HostNormalizeRows(const FNormalize<TOut>& fnPixel, int y0, int y1) {
  const int w = fnPixel.xTarget.xFormat.iWidth;
  std::vector<float4> aRaw(static_cast<size_t>(w)), aGray(fnPixel.bUseGray ? aRaw.size() : 0);
  for (int y = y0; y < y1; ++y) {
    ReadRowAs4(fnPixel.xRaw.xImage, fnPixel.iRawClass, y, w, aRaw.data());
    if (fnPixel.bUseGray) {
      ReadRowAs4(fnPixel.xGray.xImage, fnPixel.iGrayClass, y, w, aGray.data());
      DivideRow(&aRaw[0].x, &aGray[0].x, 4 * w);
    }
    typename TOut::Element* pOut = PixelPtr<TOut>(fnPixel.xTarget, 0, y);
    for (int x = 0; x < w; ++x) {
      typename TOut::Element* p = pOut + static_cast<size_t>(TOut::iChannels) * x;
      p[0] = StoreChannel<TOut>(aRaw[x].x);
      if constexpr (TOut::iChannels == 4) {
        p[1] = StoreChannel<TOut>(aRaw[x].y);
        p[2] = StoreChannel<TOut>(aRaw[x].z);
        p[3] = StoreChannel<TOut>(aRaw[x].w);
      }
    }
  }
}

template void HostNormalizeRows(const FNormalize<L_uc>&, int, int);
template void HostNormalizeRows(const FNormalize<L_us>&, int, int);
template void HostNormalizeRows(const FNormalize<RGBA_uc>&, int, int);
template void HostNormalizeRows(const FNormalize<RGBA_us>&, int, int);

}  // namespace Kernel
}  // namespace Qv
