#include "QvSynthetic.h"

namespace QvTools {

std::vector<uint8_t> MakeGrbgScene(int iWidth, int iHeight, int iFrame) {
  static const uint8_t aBars[8][3] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235},
                                      {16, 235, 16},   {235, 16, 235}, {235, 16, 16},
                                      {16, 16, 235},   {16, 16, 16}};
  std::vector<uint8_t> xBytes(static_cast<size_t>(iWidth) * iHeight);
  const int iBarsHeight = iHeight * 2 / 3;
  for (int y = 0; y < iHeight; ++y) {
    for (int x = 0; x < iWidth; ++x) {
      const int xs = (x + iFrame) % iWidth;
      uint8_t r, g, b;
      if (y < iBarsHeight) {
        const uint8_t* c = aBars[static_cast<int64_t>(xs) * 8 / iWidth];
        r = c[0], g = c[1], b = c[2];
      } else {
        r = g = b =
            static_cast<uint8_t>(static_cast<int64_t>(xs) * 255 / (iWidth > 1 ? iWidth - 1 : 1));
      }
      // The sensor sees red at 0.7 and blue at 0.88 of green, which the fixed white balance of
      // the debayer element undoes.
      r = static_cast<uint8_t>(r * 7 / 10);
      b = static_cast<uint8_t>(b * 88 / 100);
      const bool bEvenRow = (y & 1) == 0, bEvenCol = (x & 1) == 0;
      xBytes[static_cast<size_t>(y) * iWidth + x] =
          bEvenRow ? (bEvenCol ? g : r) : (bEvenCol ? b : g);
    }
  }
  return xBytes;
}

GstBufferPool* ProposedPool(GstElement* pxElement, GstCaps* pxCaps) {
  GstPad* pxSink = gst_element_get_static_pad(pxElement, "sink");
  GstQuery* pxQuery = gst_query_new_allocation(pxCaps, TRUE);
  GstBufferPool* pxPool = NULL;
  if (gst_pad_query(pxSink, pxQuery) && gst_query_get_n_allocation_pools(pxQuery) > 0) {
    gst_query_parse_nth_allocation_pool(pxQuery, 0, &pxPool, NULL, NULL, NULL);
    if (pxPool && !gst_buffer_pool_set_active(pxPool, TRUE)) {
      gst_object_unref(pxPool);
      pxPool = NULL;
    }
  }
  gst_query_unref(pxQuery);
  gst_object_unref(pxSink);
  return pxPool;
}

}  // namespace QvTools
