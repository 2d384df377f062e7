// The host backend's demosaic, row by row. Each source row is read once into normalized
// floats with its edge repeated two samples out on both sides (what the clamped texture read
// gives there), split into its even and odd columns. The pixels of a row then run as one loop
// over pixel pairs, the two phases of the row known at compile time and every sample a plain
// array read, which the compiler vectorises. The arithmetic is DemosaicPixel's, operation for
// operation, so the bytes are those of the device and of the per-pixel path.
#include <algorithm>
#include <vector>

#include "DemosaicKernel.h"

namespace Qv {
namespace Kernel {
namespace {

// One source row: normalized samples at padded columns p = x + 2, split by the parity of p.
struct SSplitRow {
  std::vector<float> afEven, afOdd;
};

template <class S>
void ReadSplitRow(const SDeviceImageDesc2D& xSource, int iRow, int iHalf, SSplitRow& xRow) {
  const int w = xSource.xFormat.iWidth, h = xSource.xFormat.iHeight;
  const typename S::Element* __restrict pRow =
      PixelPtr<S>(xSource, 0, iRow < 0 ? 0 : (iRow >= h ? h - 1 : iRow));
  float* __restrict pEven = xRow.afEven.data();
  float* __restrict pOdd = xRow.afOdd.data();
  // Padded column 2 j is x = 2 j - 2, column 2 j + 1 is x = 2 j - 1; both inside for j in
  // [1, w / 2], the edge repeated outside.
  pEven[0] = pOdd[0] = ReadChannel<S>(pRow[0]);
  const int jInside = w / 2;
  for (int j = 1; j <= jInside; ++j) {
    pEven[j] = ReadChannel<S>(pRow[2 * j - 2]);
    pOdd[j] = ReadChannel<S>(pRow[2 * j - 1]);
  }
  for (int j = jInside + 1; j < iHalf; ++j) {
    pEven[j] = ReadChannel<S>(pRow[std::min(2 * j - 2, w - 1)]);
    pOdd[j] = ReadChannel<S>(pRow[std::min(2 * j - 1, w - 1)]);
  }
}

// Pixel pairs [0, iPairs) of one output row; with bTail also the even pixel after them.
// iPhaseEven and iPhaseOdd are the phases of the row's even and odd columns.
template <class TTarget, int iPhaseEven, int iPhaseOdd>
void DemosaicRow(typename TTarget::Element* __restrict pOut, const SSplitRow* const (&apRows)[5],
                 const SBayerGains& xGains, int iPairs, bool bTail) {
  // Sample (dx, dy) of pair i's even pixel is at padded column 2 i + 2 + dx of row dy, that of
  // its odd pixel at 2 i + 3 + dx.
  auto Sample = [&](int iParity, int dx, int dy, int i) {
    const int m = iParity + 2 + dx;
    const SSplitRow& xRow = *apRows[dy + 2];
    return (m & 1) ? xRow.afOdd.data()[i + (m - 1) / 2] : xRow.afEven.data()[i + m / 2];
  };
#pragma GCC ivdep
  for (int i = 0; i < iPairs; ++i) {
    const float3 a =
        DemosaicPixel(iPhaseEven, xGains, [&](int dx, int dy) { return Sample(0, dx, dy, i); });
    const float3 b =
        DemosaicPixel(iPhaseOdd, xGains, [&](int dx, int dy) { return Sample(1, dx, dy, i); });
    HostStoreRgb<TTarget>(pOut + 8 * i, a.x, a.y, a.z);
    HostStoreRgb<TTarget>(pOut + 8 * i + 4, b.x, b.y, b.z);
  }
  if (bTail) {
    const float3 a = DemosaicPixel(iPhaseEven, xGains,
                                   [&](int dx, int dy) { return Sample(0, dx, dy, iPairs); });
    HostStoreRgb<TTarget>(pOut + 8 * iPairs, a.x, a.y, a.z);
  }
}

}  // namespace

template <class TTarget, class S>
void HostDemosaicRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                      int32_t eBayerType, const SBayerGains& xGains, int y0, int y1) {
  const int w = xSource.xFormat.iWidth;
  const int iPairs = w / 2;
  // Pair i reads padded columns up to 2 i + 5, and a tail pixel up to 2 iPairs + 4.
  const int iPadded = 2 * (iPairs + 3);
  SSplitRow axRing[5];
  for (SSplitRow& x : axRing) {
    x.afEven.resize(static_cast<size_t>(iPadded / 2));
    x.afOdd.resize(static_cast<size_t>(iPadded / 2));
  }
  // Source row r sits in slot r mod 5; rows above and below the mosaic repeat its edge rows.
  auto Slot = [](int r) { return ((r % 5) + 5) % 5; };
  for (int r = y0 - 2; r < y0 + 2; ++r) ReadSplitRow<S>(xSource, r, iPadded / 2, axRing[Slot(r)]);
  for (int y = y0; y < y1; ++y) {
    ReadSplitRow<S>(xSource, y + 2, iPadded / 2, axRing[Slot(y + 2)]);
    const SSplitRow* const apRows[5] = {&axRing[Slot(y - 2)], &axRing[Slot(y - 1)],
                                        &axRing[Slot(y)], &axRing[Slot(y + 1)],
                                        &axRing[Slot(y + 2)]};
    typename TTarget::Element* pOut = PixelPtr<TTarget>(xTarget, 0, y);
    const bool bTail = (w & 1) != 0;
    switch (BayerPhase(eBayerType, 0, y)) {
      case 0:
        DemosaicRow<TTarget, 0, 1>(pOut, apRows, xGains, iPairs, bTail);
        break;
      case 1:
        DemosaicRow<TTarget, 1, 0>(pOut, apRows, xGains, iPairs, bTail);
        break;
      case 2:
        DemosaicRow<TTarget, 2, 3>(pOut, apRows, xGains, iPairs, bTail);
        break;
      default:
        DemosaicRow<TTarget, 3, 2>(pOut, apRows, xGains, iPairs, bTail);
        break;
    }
  }
}

template void HostDemosaicRows<RGBA_uc, L_uc>(const SDeviceImageDesc2D&, const SDeviceImageDesc2D&,
                                              int32_t, const SBayerGains&, int, int);
template void HostDemosaicRows<RGBA_us, L_us>(const SDeviceImageDesc2D&, const SDeviceImageDesc2D&,
                                              int32_t, const SBayerGains&, int, int);

}  // namespace Kernel
}  // namespace Qv
