// The host backend's separable filter passes, row by row. The source rows a pass reads are
// normalized once into one plane a channel, the edge repeated as far as the filter reaches;
// each tap then adds its product to the sums of a whole row with one fused multiply-add a
// pixel, in the taps' order, which is the order FConvSep adds them in for each pixel.
#include <algorithm>
#include <vector>

#include "ConvolveKernels.h"

namespace Qv {
namespace Kernel {
namespace {

// Channel c of source row iRow into pOut[c * iStride + iPad + x], and iPad copies of the first
// and last pixel on either side.
template <class T, int C>
void ReadPlanes(const SDeviceImageDesc2D& xSource, int iRow, int iPad, size_t uStride,
                float* pOut) {
  const int w = xSource.xFormat.iWidth, h = xSource.xFormat.iHeight;
  const typename T::Element* pIn = PixelPtr<T>(xSource, 0, std::min(std::max(iRow, 0), h - 1));
  for (int c = 0; c < C; ++c) {
    float* __restrict p = pOut + c * uStride;
    const typename T::Element* __restrict q = pIn + c;
    for (int x = 0; x < w; ++x) p[iPad + x] = ReadChannel<T>(q[T::iChannels * x]);
    for (int x = 0; x < iPad; ++x) p[x] = p[iPad], p[iPad + w + x] = p[iPad + w - 1];
  }
}

void AddTap(float* __restrict pSum, const float* __restrict pIn, float fTap, int w) {
  for (int x = 0; x < w; ++x) pSum[x] = fmaf(fTap, pIn[x], pSum[x]);
}

}  // namespace

template <class T>
void HostConvSepRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                     const SFilterTaps& xTaps, int iRadius, float fNorm, bool bAlongX, int y0,
                     int y1) {
  constexpr int C = T::iChannels == 4 ? 3 : 1;
  const int w = xTarget.xFormat.iWidth, n = 2 * iRadius + 1;
  // Along x one padded row; along y the n rows around the target row, in a ring by row.
  const int iPad = bAlongX ? iRadius : 0, iRows = bAlongX ? 1 : n;
  const size_t uStride = static_cast<size_t>(w) + 2 * iPad, uRowFloats = C * uStride;
  std::vector<float> afRows(uRowFloats * iRows), afSum(static_cast<size_t>(C) * w);
  std::vector<int> aiRowOf(static_cast<size_t>(iRows), INT32_MIN);
  auto Row = [&](int r) {
    const size_t uSlot = static_cast<size_t>((r % iRows + iRows) % iRows);
    float* p = afRows.data() + uSlot * uRowFloats;
    if (aiRowOf[uSlot] != r) ReadPlanes<T, C>(xSource, r, iPad, uStride, p), aiRowOf[uSlot] = r;
    return static_cast<const float*>(p);
  };
  for (int y = y0; y < y1; ++y) {
    std::fill(afSum.begin(), afSum.end(), 0.0f);
    for (int k = 0; k < n; ++k) {
      const float* pRow = bAlongX ? Row(y) + k : Row(y + k - iRadius);
      for (int c = 0; c < C; ++c)
        AddTap(afSum.data() + static_cast<size_t>(c) * w, pRow + c * uStride, xTaps.afTap[k], w);
    }
    typename T::Element* pOut = PixelPtr<T>(xTarget, 0, y);
    const float* pR = afSum.data();
    if constexpr (C == 3) {
      const float *pG = pR + w, *pB = pG + w;
      for (int x = 0; x < w; ++x)
        HostStoreRgb<T>(pOut + 4 * x, pR[x] * fNorm, pG[x] * fNorm, pB[x] * fNorm);
    } else {
      for (int x = 0; x < w; ++x) pOut[x] = StoreChannel<T>(pR[x] * fNorm);
    }
  }
}

template void HostConvSepRows<RGBA_uc>(const SDeviceImageDesc2D&, const SDeviceImageDesc2D&,
                                       const SFilterTaps&, int, float, bool, int, int);
template void HostConvSepRows<RGBA_us>(const SDeviceImageDesc2D&, const SDeviceImageDesc2D&,
                                       const SFilterTaps&, int, float, bool, int, int);
template void HostConvSepRows<L_uc>(const SDeviceImageDesc2D&, const SDeviceImageDesc2D&,
                                    const SFilterTaps&, int, float, bool, int, int);
template void HostConvSepRows<L_us>(const SDeviceImageDesc2D&, const SDeviceImageDesc2D&,
                                    const SFilterTaps&, int, float, bool, int, int);

}  // namespace Kernel
}  // namespace Qv
