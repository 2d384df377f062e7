#pragma once
// A buffer map that is released on every path out of a frame, failures included.
#include <gst/gst.h>

#include "QvException.h"

class CGstBufferMap {
 public:
  CGstBufferMap(GstBuffer* pxBuffer, GstMapFlags eFlags, const char* szFailure)
      : m_pxBuffer(pxBuffer) {
    if (!pxBuffer || !gst_buffer_map(pxBuffer, &m_xInfo, eFlags)) QV_THROW(szFailure);
    m_bMapped = true;
  }
  ~CGstBufferMap() {
    if (m_bMapped) gst_buffer_unmap(m_pxBuffer, &m_xInfo);
  }
  CGstBufferMap(const CGstBufferMap&) = delete;
  CGstBufferMap& operator=(const CGstBufferMap&) = delete;

  guint8* Data() const { return m_xInfo.data; }
  gsize Size() const { return m_xInfo.size; }

 private:
  GstBuffer* m_pxBuffer;
  GstMapInfo m_xInfo = GST_MAP_INFO_INIT;
  bool m_bMapped = false;
};
