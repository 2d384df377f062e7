#include "GstTestUtil.h"

#include <gtest/gtest.h>

#include <cstring>

#include "QvDeviceImage2D.h"
#include "gstUtil.h"
#include "gstqvCudaMemory.h"

namespace QvTest {

GstBuffer* BufferFromBytes(const std::vector<uint8_t>& xBytes) {
  GstBuffer* pxBuffer = gst_buffer_new_allocate(NULL, xBytes.size(), NULL);
  gst_buffer_fill(pxBuffer, 0, xBytes.data(), xBytes.size());
  return pxBuffer;
}

Qv::CQvImage DownloadBufferImage(GstBuffer* pxBuffer) {
  Qv::CQvImage xHost;
  GstMapInfo xMap;
  if (!gst_buffer_map(pxBuffer, &xMap, GST_MAP_READ)) {
    ADD_FAILURE() << "cannot map the output buffer";
    return xHost;
  }
  auto* pxImage = reinterpret_cast<Qv::CQvDeviceImage2D*>(xMap.data);
  if (pxImage && pxImage->IsValid())
    pxImage->CopyTo(xHost);
  else
    ADD_FAILURE() << "the buffer carries no device image";
  gst_buffer_unmap(pxBuffer, &xMap);
  return xHost;
}

bool CapsEqualString(const GstCaps* pxCaps, const char* szExpected) {
  GstCaps* pxExpected = gst_caps_from_string(szExpected);
  const bool bEqual = gst_caps_is_equal(pxCaps, pxExpected);
  if (!bEqual) {
    gchar* a = gst_caps_to_string(pxCaps);
    gchar* b = gst_caps_to_string(pxExpected);
    ADD_FAILURE() << "caps\n  " << a << "\nexpected\n  " << b;
    g_free(a);
    g_free(b);
  }
  gst_caps_unref(pxExpected);
  return bEqual;
}

GstBuffer* DeviceImageBuffer(const Qv::IImage& xImage) {
  // The buffer an element's output step makes, filled as that element would fill it.
  GstBuffer* pxBuffer = NULL;
  if (PrepareOutputBufferCuda(NULL, NULL, &pxBuffer) != GST_FLOW_OK || !pxBuffer) {
    ADD_FAILURE() << "cannot make a device image buffer";
    return gst_buffer_new();
  }
  GstMapInfo xMap;
  if (!gst_buffer_map(pxBuffer, &xMap, GST_MAP_WRITE)) {
    ADD_FAILURE() << "cannot map a device image buffer";
    return pxBuffer;
  }
  reinterpret_cast<Qv::CQvDeviceImage2D*>(xMap.data)->Create(xImage);
  gst_buffer_unmap(pxBuffer, &xMap);
  return pxBuffer;
}

}  // namespace QvTest
