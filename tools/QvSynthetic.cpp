#include "QvSynthetic.h"

#include <algorithm>
#include <cmath>

namespace QvTools {

namespace {

const uint8_t aBars[8][3] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235}, {16, 235, 16},
                             {235, 16, 235},  {235, 16, 16},  {16, 16, 235},  {16, 16, 16}};

void SceneColour(int iScene, int xs, int y, int iWidth, int iHeight, uint8_t& r, uint8_t& g,
                 uint8_t& b) {
  const int64_t iRamp = static_cast<int64_t>(xs) * 255 / (iWidth > 1 ? iWidth - 1 : 1);
  const int iCell = std::max(1, iHeight / 6);
  const uint8_t* c = aBars[7];
  switch (iScene % 6) {
    case 0:
      if (y >= iHeight * 2 / 3) {
        r = g = b = static_cast<uint8_t>(iRamp);
        return;
      }
      c = aBars[static_cast<int64_t>(xs) * 8 / iWidth];
      break;
    case 1:
      c = ((xs / iCell + y / iCell) & 1) ? aBars[5] : aBars[6];
      break;
    case 2: {
      const double dx = xs - iWidth / 2.0, dy = y - iHeight / 2.0;
      c = (static_cast<int>(std::sqrt(dx * dx + dy * dy)) / (iCell / 2 + 1)) & 1 ? aBars[5]
                                                                                 : aBars[0];
      break;
    }
    case 3:
      c = aBars[std::min(7, y * 8 / std::max(1, iHeight))];
      break;
    case 4:
      c = ((xs + y) / iCell) & 1 ? aBars[3] : aBars[4];
      break;
    default:
      r = static_cast<uint8_t>(iRamp);
      g = static_cast<uint8_t>(static_cast<int64_t>(y) * 255 / std::max(1, iHeight - 1));
      b = 128;
      return;
  }
  r = c[0], g = c[1], b = c[2];
}

}  // namespace

std::vector<uint8_t> MakeGrbgScene(int iWidth, int iHeight, int iFrame, int iScene) {
  std::vector<uint8_t> xBytes(static_cast<size_t>(iWidth) * iHeight);
  for (int y = 0; y < iHeight; ++y) {
    for (int x = 0; x < iWidth; ++x) {
      const int xs = (x + iFrame) % iWidth;
      uint8_t r, g, b;
      SceneColour(iScene, xs, y, iWidth, iHeight, r, g, b);
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

GstBuffer* BufferOfProposedPool(GstElement* pxElement, GstCaps* pxCaps, int iTries) {
  for (int iTry = 0; iTry < iTries; ++iTry) {
    GstBufferPool* pxPool = ProposedPool(pxElement, pxCaps);
    if (!pxPool) {
      g_usleep(10000);  // not negotiated yet
      continue;
    }
    GstBuffer* pxBuffer = NULL;
    if (gst_buffer_pool_acquire_buffer(pxPool, &pxBuffer, NULL) != GST_FLOW_OK) pxBuffer = NULL;
    gst_buffer_pool_set_active(pxPool, FALSE);
    gst_object_unref(pxPool);
    if (pxBuffer) return pxBuffer;
  }
  return NULL;
}

}  // namespace QvTools
