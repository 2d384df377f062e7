// The host backend's YUV conversion, row by row: each target row is one or a few runs over a
// source row read with plain pointers, which the compiler vectorises. Inside the image the
// point fetch of the per-pixel functors reads exactly these pixels, and the arithmetic is
// theirs, so the bytes are the same.
#include <algorithm>

#include "YuvKernels.h"

namespace Qv {
namespace Kernel {
namespace {

// A pixel's colour as the point fetch reads it; conversion does not use alpha.
template <class TIn>
QV_FORCEINLINE float4 ReadColour(const typename TIn::Element* p) {
  return make_float4(ReadChannel<TIn>(p[0]), ReadChannel<TIn>(p[1]), ReadChannel<TIn>(p[2]), 0.0f);
}

template <class TIn, class TOut>
void LumaRun(const typename TIn::Element* __restrict pSrc, typename TOut::Element* __restrict pOut,
             int iCount) {
  for (int i = 0; i < iCount; ++i)
    pOut[i] = StoreChannel<TOut>(rgbToY(ReadColour<TIn>(pSrc + 4 * i)));
}

// U or V of every second pixel of a source row, from pSrc on.
template <class TIn, class TOut>
void ChromaRun(bool bU, const typename TIn::Element* __restrict pSrc,
               typename TOut::Element* __restrict pOut, int iCount) {
  if (bU)
    for (int i = 0; i < iCount; ++i)
      pOut[i] = StoreChannel<TOut>(rgbToU(ReadColour<TIn>(pSrc + 8 * i)));
  else
    for (int i = 0; i < iCount; ++i)
      pOut[i] = StoreChannel<TOut>(rgbToV(ReadColour<TIn>(pSrc + 8 * i)));
}

}  // namespace

template <class TIn, class TOut>
void HostConvertStackedRows(const FConvertStacked<TIn, TOut>& fnPixel, int y0, int y1) {
  const SDeviceImageDesc2D& xSrc = fnPixel.xSource.xImage;
  const int w = fnPixel.iSrcWidth, h = fnPixel.iSrcHeight;
  const int iTrgWidth = fnPixel.xTarget.xFormat.iWidth;
  for (int y = y0; y < y1; ++y) {
    typename TOut::Element* pOut = PixelPtr<TOut>(fnPixel.xTarget, 0, y);
    if (y < h) {
      LumaRun<TIn, TOut>(PixelPtr<TIn>(xSrc, 0, y), pOut, iTrgWidth);
      continue;
    }
    const bool bU = y < fnPixel.iVStart;
    const int64_t n0 = 2 * (static_cast<int64_t>(y - (bU ? h : fnPixel.iVStart)) * w);
    // The functor's column is a float remainder, which is the integer one while the sample
    // index is exact in a float.
    if (n0 + 2 * static_cast<int64_t>(iTrgWidth - 1) > (int64_t{1} << 24)) {
      for (int x = 0; x < iTrgWidth; ++x) fnPixel(x, y);
      continue;
    }
    int64_t iCol = n0 % w, iRow = 2 * (n0 / w);
    for (int x = 0; x < iTrgWidth;) {
      // Samples on source row iRow, every second column from iCol to the row's end.
      const int iCount = std::min<int>(iTrgWidth - x, static_cast<int>((w - iCol + 1) / 2));
      const int iClampedRow = static_cast<int>(std::min<int64_t>(iRow, h - 1));
      ChromaRun<TIn, TOut>(bU, PixelPtr<TIn>(xSrc, static_cast<int>(iCol), iClampedRow), pOut + x,
                           iCount);
      x += iCount;
      for (iCol += 2 * iCount; iCol >= w; iCol -= w) iRow += 2;
    }
  }
}

template <class TIn, class TOut>
void HostConvertPlanesRows(const FConvertPlanes<TIn, TOut>& fnPixel, int y0, int y1) {
  const SDeviceImageDesc2D& xSrc = fnPixel.xSource.xImage;
  const int w = fnPixel.xPlaneY.xFormat.iWidth, h = fnPixel.xPlaneY.xFormat.iHeight;
  if (w > xSrc.xFormat.iWidth || h > xSrc.xFormat.iHeight) {
    // A luma plane larger than the source reads clamped pixels: the functor does that.
    for (int y = y0; y < y1; ++y)
      for (int x = 0; x < w; ++x) fnPixel(x, y);
    return;
  }
  for (int y = y0; y < y1; ++y) {
    LumaRun<TIn, TOut>(PixelPtr<TIn>(xSrc, 0, y), PixelPtr<TOut>(fnPixel.xPlaneY, 0, y), w);
    if (y >= h / 2) continue;
    const typename TIn::Element* pRow = PixelPtr<TIn>(xSrc, 0, 2 * y);
    ChromaRun<TIn, TOut>(true, pRow, PixelPtr<TOut>(fnPixel.xPlaneU, 0, y), w / 2);
    ChromaRun<TIn, TOut>(false, pRow, PixelPtr<TOut>(fnPixel.xPlaneV, 0, y), w / 2);
  }
}

template void HostConvertStackedRows(const FConvertStacked<RGBA_uc, L_uc>&, int, int);
template void HostConvertStackedRows(const FConvertStacked<RGBA_us, L_us>&, int, int);
template void HostConvertPlanesRows(const FConvertPlanes<RGBA_uc, L_uc>&, int, int);
template void HostConvertPlanesRows(const FConvertPlanes<RGBA_us, L_us>&, int, int);

}  // namespace Kernel
}  // namespace Qv
