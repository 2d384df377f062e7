// The host backend's shrink and resize, row by row. The linear filter's taps along x are the
// same for every row and those along y for every column, so both are worked out once; the source
// rows they name are read once into normalized floats, one plane a channel. Each sample is then the
// texture unit's blend of four of those floats with the quantized weights, summed in the
// functor's order, so the bytes are the functor's.
#include <cstring>
#include <vector>

#include "ConvolveKernels.h"

namespace Qv {
namespace Kernel {
namespace {

// Normalized source rows, the colour channels only, kept for as long as target rows use them.
// A slot holds each channel as a plane of the source's width; or, given a column table (one
// sample a target pixel), for each channel two planes of the target's width: the first and the
// second texel the linear filter blends at each column, so that target rows blend plain arrays.
template <class T>
class CRowCache {
 public:
  static constexpr int kChannels = T::iChannels == 4 ? 3 : 1;

  // Column x's pair is texels piPair[x] and piPair[x] + 1 of the row with one texel repeated
  // at each end.
  CRowCache(const SDeviceImageDesc2D& xSource, int iSlots, const int* piPair = nullptr,
            int iColumns = 0)
      : m_xSource(xSource),
        m_piPair(piPair),
        m_iColumns(iColumns),
        m_aiRow(static_cast<size_t>(iSlots), -1),
        m_afData(static_cast<size_t>(iSlots) * SlotFloats()),
        m_afLine(piPair ? static_cast<size_t>(xSource.xFormat.iWidth) + 2 : 0) {}

  const float* Row(int iRow) {
    const int w = m_xSource.xFormat.iWidth;
    const size_t uSlot = static_cast<size_t>(iRow) % m_aiRow.size();
    float* pOut = m_afData.data() + uSlot * SlotFloats();
    if (m_aiRow[uSlot] == iRow) return pOut;
    m_aiRow[uSlot] = iRow;
    const typename T::Element* pIn = PixelPtr<T>(m_xSource, 0, iRow);
    for (int c = 0; c < kChannels; ++c) {
      if (!m_piPair) {
        Normalize(pOut + static_cast<size_t>(c) * w, pIn + c, w);
        continue;
      }
      // The row with one texel repeated at each end, then the pairs.
      float* pLine = m_afLine.data();
      Normalize(pLine + 1, pIn + c, w);
      pLine[0] = pLine[1], pLine[w + 1] = pLine[w];
      float* pFirst = pOut + static_cast<size_t>(2 * c) * m_iColumns;
      PlacePairs(pFirst, pFirst + m_iColumns, pLine, m_piPair, m_iColumns, w + 2);
    }
    return pOut;
  }

 private:
  // pFirst[x] = pLine[piPair[x]] and pSecond[x] = pLine[piPair[x] + 1]. piPair never falls
  // along a row, so unless the row shrinks by two or more, the pairs of a vector's width of
  // columns lie in two vectors' width of the row: two loads and two permutations place them.
  static void PlacePairs(float* __restrict pFirst, float* __restrict pSecond,
                         const float* __restrict pLine, const int* __restrict piPair, int n,
                         int iLine) {
    int x = 0;
#if defined(__AVX512F__) || defined(__AVX2__)
#if defined(__AVX512F__)
    constexpr int N = 16;
#else
    constexpr int N = 8;
#endif
    typedef float VFloat __attribute__((vector_size(4 * N)));
    typedef int VInt __attribute__((vector_size(4 * N)));
    for (; x + N <= n; x += N) {
      const int iBase = piPair[x];
      if (piPair[x + N - 1] + 1 - iBase >= 2 * N || iBase + 2 * N > iLine) {
        for (int k = x; k < x + N; ++k)
          pFirst[k] = pLine[piPair[k]], pSecond[k] = pLine[piPair[k] + 1];
        continue;
      }
      VFloat v0, v1;
      VInt i;
      std::memcpy(&v0, pLine + iBase, sizeof(v0));
      std::memcpy(&v1, pLine + iBase + N, sizeof(v1));
      std::memcpy(&i, piPair + x, sizeof(i));
      i -= iBase;
      const VFloat a = __builtin_shuffle(v0, v1, i), b = __builtin_shuffle(v0, v1, i + 1);
      std::memcpy(pFirst + x, &a, sizeof(a));
      std::memcpy(pSecond + x, &b, sizeof(b));
    }
#endif
    for (; x < n; ++x) pFirst[x] = pLine[piPair[x]], pSecond[x] = pLine[piPair[x] + 1];
  }

  static void Normalize(float* __restrict pOut, const typename T::Element* __restrict pIn, int w) {
    for (int x = 0; x < w; ++x) pOut[x] = ReadChannel<T>(pIn[T::iChannels * x]);
  }

  size_t SlotFloats() const {
    return static_cast<size_t>(kChannels) * (m_piPair ? 2 * m_iColumns : m_xSource.xFormat.iWidth);
  }

  SDeviceImageDesc2D m_xSource;
  const int* m_piPair;
  int m_iColumns;
  std::vector<int> m_aiRow;
  std::vector<float> m_afData;
  std::vector<float> m_afLine;
};

// One sample a target pixel, blended and stored: channel c's texels i0 and i1 of column x are
// at 2 c w + x and (2 c + 1) w + x of the slots p0 (row j0) and p1 (row j1).
template <class T, int C>
void BlendAndStoreRow(typename T::Element* __restrict pOut, const float* __restrict p0,
                      const float* __restrict p1, const float* __restrict pfWeightX, float fWeightY,
                      int w) {
  const size_t n = static_cast<size_t>(w);
  for (int x = 0; x < w; ++x) {
    const float4 wt = Detail::LinearWeights(pfWeightX[x], fWeightY);
    float v[C];
    for (int c = 0; c < C; ++c) {
      const size_t k = 2 * c * n + x;
      v[c] = Detail::Blend(p0[k], p0[k + n], p1[k], p1[k + n], wt.x, wt.y, wt.z, wt.w);
    }
    if constexpr (C == 3)
      HostStoreRgb<T>(pOut + 4 * x, v[0], v[1], v[2]);
    else
      pOut[x] = StoreChannel<T>(v[0]);
  }
}

}  // namespace

template <class T>
void HostResampleRows(const SDeviceImageDesc2D& xTarget, const SDeviceImageDesc2D& xSrc,
                      const SResampleAxes& xAxes, int y0, int y1) {
  const int iSrcWidth = xSrc.xFormat.iWidth, iSrcHeight = xSrc.xFormat.iHeight;
  const int w = xTarget.xFormat.iWidth;
  const int nx = xAxes.nx, ny = xAxes.ny;
  constexpr int C = CRowCache<T>::kChannels;
  // Taps along x, sample i of column x at x * nx + i.
  std::vector<int> aiX0(static_cast<size_t>(w) * nx), aiX1(aiX0.size());
  std::vector<float> afWeightX(aiX0.size());
  for (int x = 0; x < w; ++x)
    for (int i = 0; i < nx; ++i) {
      const Detail::SLinearTap t =
          Detail::LinearTap(xAxes.pfX[static_cast<size_t>(x) * nx + i], iSrcWidth);
      const size_t k = static_cast<size_t>(x) * nx + i;
      aiX0[k] = t.i0, aiX1[k] = t.i1, afWeightX[k] = t.fWeight;
    }
  // One sample along x and y gives the blend itself: for the box too, whose sum 0 + t and
  // division by 1 leave t as it is, except a float image's -0.
  const bool bOneSample = nx == 1 && ny == 1 && (!xAxes.bAverage || !T::bIsFloat);
  // Where column x's texels i0 and i1 start in a row with one texel repeated at each end: at
  // i0 + 1, or at the first or the next to last where the filter clamps both to an edge.
  std::vector<int> aiPair(bOneSample ? static_cast<size_t>(w) : 0);
  for (size_t x = 0; x < aiPair.size(); ++x)
    aiPair[x] = aiX1[x] == aiX0[x] + 1 ? aiX0[x] + 1 : (aiX0[x] == 0 ? 0 : iSrcWidth);
  CRowCache<T> xRows(xSrc, ny + 3, bOneSample ? aiPair.data() : nullptr, w);
  std::vector<float> afColour(static_cast<size_t>(w) * C);  // one plane a channel
  std::vector<float> afWeightY(static_cast<size_t>(ny));
  std::vector<const float*> apRow0(static_cast<size_t>(ny)), apRow1(static_cast<size_t>(ny));
  for (int y = y0; y < y1; ++y) {
    for (int j = 0; j < ny; ++j) {
      const Detail::SLinearTap t =
          Detail::LinearTap(xAxes.pfY[static_cast<size_t>(y) * ny + j], iSrcHeight);
      afWeightY[j] = t.fWeight;
      apRow0[j] = xRows.Row(t.i0);
      apRow1[j] = xRows.Row(t.i1);
    }
    typename T::Element* pOut = PixelPtr<T>(xTarget, 0, y);
    if (bOneSample) {
      BlendAndStoreRow<T, C>(pOut, apRow0[0], apRow1[0], afWeightX.data(), afWeightY[0], w);
      continue;
    }
    // The colours of the row, then their stores.
    for (int c = 0; c < C; ++c) {
      float* pColour = afColour.data() + static_cast<size_t>(c) * w;
      for (int x = 0; x < w; ++x) {
        float s = 0.0f, fCount = 0.0f;
        for (int i = 0; i < nx; ++i) {
          const size_t k = static_cast<size_t>(x) * nx + i;
          const int i0 = aiX0[k], i1 = aiX1[k];
          for (int j = 0; j < ny; ++j) {
            const float* p0 = apRow0[j] + static_cast<size_t>(c) * iSrcWidth;
            const float* p1 = apRow1[j] + static_cast<size_t>(c) * iSrcWidth;
            const float4 wt = Detail::LinearWeights(afWeightX[k], afWeightY[j]);
            s += Detail::Blend(p0[i0], p0[i1], p1[i0], p1[i1], wt.x, wt.y, wt.z, wt.w);
            fCount += 1.0f;
          }
        }
        pColour[x] = s / fCount;
      }
    }
    const float* pR = afColour.data();
    if constexpr (C == 3) {
      const float *pG = pR + w, *pB = pG + w;
      for (int x = 0; x < w; ++x) HostStoreRgb<T>(pOut + 4 * x, pR[x], pG[x], pB[x]);
    } else {
      for (int x = 0; x < w; ++x) pOut[x] = StoreChannel<T>(pR[x]);
    }
  }
}

#define QV_HOST_RESAMPLE(T)                                                               \
  template void HostResampleRows<T>(const SDeviceImageDesc2D&, const SDeviceImageDesc2D&, \
                                    const SResampleAxes&, int, int);
QV_HOST_RESAMPLE(RGBA_uc)
QV_HOST_RESAMPLE(RGBA_us)
QV_HOST_RESAMPLE(L_uc)
QV_HOST_RESAMPLE(L_us)
QV_HOST_RESAMPLE(L_f)

}  // namespace Kernel
}  // namespace Qv
