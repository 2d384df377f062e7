// The host backend's shrink, row by row. The linear filter's taps along x are the same for
// every row and those along y for every column, so both are worked out once; the source rows
// they name are read once into normalized floats. Each sample is then the texture unit's
// blend of four of those floats with the quantized weights, summed in the functor's order, so
// the bytes are the functor's.
#include <vector>

#include "ConvolveKernels.h"

namespace Qv {
namespace Kernel {
namespace {

// Normalized source rows, the colour channels only, kept for as long as target rows use them.
template <class T>
class CRowCache {
 public:
  static constexpr int kChannels = T::iChannels == 4 ? 3 : 1;

  CRowCache(const SDeviceImageDesc2D& xSource, int iSlots)
      : m_xSource(xSource),
        m_aiRow(static_cast<size_t>(iSlots), -1),
        m_afData(static_cast<size_t>(iSlots) * Stride()) {}

  const float* Row(int iRow) {
    const size_t uSlot = static_cast<size_t>(iRow) % m_aiRow.size();
    float* pOut = m_afData.data() + uSlot * Stride();
    if (m_aiRow[uSlot] != iRow) {
      m_aiRow[uSlot] = iRow;
      const typename T::Element* pIn = PixelPtr<T>(m_xSource, 0, iRow);
      for (int x = 0; x < m_xSource.xFormat.iWidth; ++x)
        for (int c = 0; c < kChannels; ++c)
          pOut[kChannels * x + c] = ReadChannel<T>(pIn[T::iChannels * x + c]);
    }
    return pOut;
  }

 private:
  size_t Stride() const { return static_cast<size_t>(m_xSource.xFormat.iWidth) * kChannels; }

  SDeviceImageDesc2D m_xSource;
  std::vector<int> m_aiRow;
  std::vector<float> m_afData;
};

}  // namespace

template <class T>
void HostShrinkRows(const FShrink<T>& fnPixel, int y0, int y1) {
  const SDeviceImageDesc2D& xSrc = fnPixel.xSource.xImage;
  const int iSrcWidth = xSrc.xFormat.iWidth, iSrcHeight = xSrc.xFormat.iHeight;
  const int w = fnPixel.xTarget.xFormat.iWidth;
  const int nx = fnPixel.SamplesX(), ny = fnPixel.SamplesY();
  // The rows one target row reads lie within ny + 3 of each other. Reductions so steep that
  // the tables would outgrow the images run per pixel.
  const int64_t iTableFloats = (static_cast<int64_t>(ny) + 3) * iSrcWidth * 3 + int64_t{3} * w * nx;
  if (iTableFloats > (int64_t{16} << 20)) {
    for (int y = y0; y < y1; ++y)
      for (int x = 0; x < w; ++x) fnPixel(x, y);
    return;
  }
  constexpr int C = CRowCache<T>::kChannels;
  std::vector<Detail::SLinearTap> axTapX(static_cast<size_t>(w) * nx);
  for (int x = 0; x < w; ++x)
    for (int i = 0; i < nx; ++i)
      axTapX[static_cast<size_t>(x) * nx + i] = Detail::LinearTap(fnPixel.SampleX(x, i), iSrcWidth);
  CRowCache<T> xRows(xSrc, ny + 3);
  std::vector<float> afColour(static_cast<size_t>(w) * C);
  std::vector<Detail::SLinearTap> axTapY(static_cast<size_t>(ny));
  std::vector<const float*> apRow0(static_cast<size_t>(ny)), apRow1(static_cast<size_t>(ny));
  for (int y = y0; y < y1; ++y) {
    for (int j = 0; j < ny; ++j) {
      axTapY[j] = Detail::LinearTap(fnPixel.SampleY(y, j), iSrcHeight);
      apRow0[j] = xRows.Row(axTapY[j].i0);
      apRow1[j] = xRows.Row(axTapY[j].i1);
    }
    // One sample of the channel c of target pixel x.
    auto Sample = [&](const Detail::SLinearTap& tx, int j, int c) {
      const float4 wt = Detail::LinearWeights(tx.fWeight, axTapY[j].fWeight);
      return Detail::Blend(apRow0[j][C * tx.i0 + c], apRow0[j][C * tx.i1 + c],
                           apRow1[j][C * tx.i0 + c], apRow1[j][C * tx.i1 + c], wt.x, wt.y, wt.z,
                           wt.w);
    };
    // The colours of the row, then their stores, which the compiler vectorises.
    float* pColour = afColour.data();
    if (fnPixel.bSingleSample) {
      for (int x = 0; x < w; ++x)
        for (int c = 0; c < C; ++c) pColour[C * x + c] = Sample(axTapX[x], 0, c);
    } else {
      for (int x = 0; x < w; ++x) {
        float s[3] = {0.0f, 0.0f, 0.0f};
        float fCount = 0.0f;
        for (int i = 0; i < nx; ++i) {
          const Detail::SLinearTap& tx = axTapX[static_cast<size_t>(x) * nx + i];
          for (int j = 0; j < ny; ++j) {
            for (int c = 0; c < C; ++c) s[c] += Sample(tx, j, c);
            fCount += 1.0f;
          }
        }
        for (int c = 0; c < C; ++c) pColour[C * x + c] = s[c] / fCount;
      }
    }
    typename T::Element* pOut = PixelPtr<T>(fnPixel.xTarget, 0, y);
    if constexpr (C == 3) {
      for (int x = 0; x < w; ++x)
        HostStoreRgb<T>(pOut + 4 * x, pColour[3 * x], pColour[3 * x + 1], pColour[3 * x + 2]);
    } else {
      for (int x = 0; x < w; ++x) pOut[x] = StoreChannel<T>(pColour[x]);
    }
  }
}

template void HostShrinkRows(const FShrink<RGBA_uc>&, int, int);
template void HostShrinkRows(const FShrink<RGBA_us>&, int, int);
template void HostShrinkRows(const FShrink<L_uc>&, int, int);
template void HostShrinkRows(const FShrink<L_us>&, int, int);
template void HostShrinkRows(const FShrink<L_f>&, int, int);

}  // namespace Kernel
}  // namespace Qv
