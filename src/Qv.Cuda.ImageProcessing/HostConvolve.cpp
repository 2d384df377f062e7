// The host backend's separable filter passes, dense correlation and Sobel, row by row. The source
// rows they read are normalized once into one plane a channel, the edge repeated as far as the
// filter reaches. A pass's tap then adds its product to the sums of a whole row with one fused
// multiply-add a pixel, in the taps' order, which is the order FConvSep adds them in for each
// pixel; Sobel runs SobelMagnitude along a row.
#include <algorithm>
#include <vector>

#include "ConvolveKernels.h"
#include "DenseConvolveKernels.h"

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

// Source rows by row number, in a ring of iRows slots: each channel a plane padded by iPad.
template <class T, int C>
class CPlaneRing {
 public:
  CPlaneRing(const SDeviceImageDesc2D& xSource, int iRows, int iPad)
      : m_xSource(xSource),
        m_iPad(iPad),
        m_uStride(static_cast<size_t>(xSource.xFormat.iWidth) + 2 * iPad),
        m_afRows(C * m_uStride * iRows),
        m_aiRowOf(static_cast<size_t>(iRows), INT32_MIN) {}

  size_t Stride() const { return m_uStride; }

  // Channel c of row r starts at Row(r) + c * Stride(); its pixel x at iPad + x.
  const float* Row(int r) {
    const int iRows = static_cast<int>(m_aiRowOf.size());
    const size_t uSlot = static_cast<size_t>((r % iRows + iRows) % iRows);
    float* p = m_afRows.data() + uSlot * C * m_uStride;
    if (m_aiRowOf[uSlot] != r) ReadPlanes<T, C>(m_xSource, r, m_iPad, m_uStride, p);
    m_aiRowOf[uSlot] = r;
    return p;
  }

 private:
  SDeviceImageDesc2D m_xSource;
  int m_iPad;
  size_t m_uStride;
  std::vector<float> m_afRows;
  std::vector<int> m_aiRowOf;
};

void AddTap(float* __restrict pSum, const float* __restrict pIn, float fTap, int w) {
  for (int x = 0; x < w; ++x) pSum[x] = fmaf(fTap, pIn[x], pSum[x]);
}

// Rows pa, pm, pb above, at and below the target row, each padded by one pixel.
void SobelRow(float* __restrict pOut, const float* __restrict pa, const float* __restrict pm,
              const float* __restrict pb, int w) {
  for (int x = 0; x < w; ++x)
    pOut[x] =
        SobelMagnitude(pa[x], pa[x + 1], pa[x + 2], pm[x], pm[x + 2], pb[x], pb[x + 1], pb[x + 2]);
}

}  // namespace

template <class T>
void HostConvSepRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                     const SFilterTaps& xTaps, int iRadius, float fNorm, bool bAlongX, int y0,
                     int y1) {
  constexpr int C = T::iChannels == 4 ? 3 : 1;
  const int w = xTarget.xFormat.iWidth, n = 2 * iRadius + 1;
  // Along x one padded row; along y the n rows around the target row.
  CPlaneRing<T, C> xRows(xSource, bAlongX ? 1 : n, bAlongX ? iRadius : 0);
  const size_t uStride = xRows.Stride();
  std::vector<float> afSum(static_cast<size_t>(C) * w);
  for (int y = y0; y < y1; ++y) {
    std::fill(afSum.begin(), afSum.end(), 0.0f);
    for (int k = 0; k < n; ++k) {
      const float* pRow = bAlongX ? xRows.Row(y) + k : xRows.Row(y + k - iRadius);
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

void HostConvolutionRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource,
                         const float* pfCoefficients, int N, int y0, int y1) {
  const int w = xTarget.xFormat.iWidth, o = (N - 1) / 2;
  CPlaneRing<L_f, 1> xRows(xSource, N, N);
  for (int y = y0; y < y1; ++y) {
    float* pSum = PixelPtr<L_f>(xTarget, 0, y);
    std::fill(pSum, pSum + w, 0.0f);
    for (int j = 0; j < N; ++j) {
      const float* pRow = xRows.Row(y + j - o) + N - o;
      for (int i = 0; i < N; ++i) AddTap(pSum, pRow + i, pfCoefficients[j * N + i], w);
    }
  }
}

template <class TSrc>
void HostSobelRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSource, int y0,
                   int y1) {
  CPlaneRing<TSrc, 1> xRows(xSource, 3, 1);
  for (int y = y0; y < y1; ++y) {
    const float *pa = xRows.Row(y - 1), *pm = xRows.Row(y), *pb = xRows.Row(y + 1);
    SobelRow(PixelPtr<L_f>(xTarget, 0, y), pa, pm, pb, xTarget.xFormat.iWidth);
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
#define QV_HOST_SOBEL(T) \
  template void HostSobelRows<T>(const SDeviceImageDesc2D&, const SDeviceImageDesc2D&, int, int);
QV_HOST_SOBEL(L_uc)
QV_HOST_SOBEL(L_us)
QV_HOST_SOBEL(L_f)
QV_HOST_SOBEL(RGBA_uc)
QV_HOST_SOBEL(RGBA_us)
QV_HOST_SOBEL(RGBA_f)

}  // namespace Kernel
}  // namespace Qv
