#pragma once
#include <cuda_runtime_api.h>
#include <gst/base/gstbasesink.h>
#include <gst/gst.h>

#include <cstdint>
#include <list>

#include "QvNvBuffer.h"

namespace Qv {
class CQvCudaCompYUV;
}
class NvJpegEncoder;

G_BEGIN_DECLS

#define GST_TYPE_CUDA_JPEG_SINK (gst_cuda_jpeg_sink_get_type())
#define GST_CUDA_JPEG_SINK(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_CUDA_JPEG_SINK, GstQvCudaJpegSink))

// The fields after the parent are plain data or pointers, set up in instance init. location
// and quality are written under the object lock and read by render under it.
typedef struct _GstQvCudaJpegSink {
  GstBaseSink parent;
  std::list<int64_t>* pxTimes;
  guint32 uFrames;
  gchar* sLocation;
  gint iQuality;
  TegraBufferShim xBufferShim;
  NvMemory xNvBuffer;
  NvMappedMemory xNvMapped;
  cudaStream_t pxStream;
  Qv::CQvCudaCompYUV* pxYuvComp;
  unsigned char* pJpegData;
  unsigned long uJpegSize;
  // Besides those: the encoder, the size of the output area, why instance init could not set
  // up the device, and why the last location set was refused (each null when nothing failed).
  NvJpegEncoder* pxEncoder;
  unsigned long uJpegCapacity;
  gchar* sInitError;
  gchar* sLocationError;
} GstQvCudaJpegSink;

typedef struct _GstQvCudaJpegSinkClass {
  GstBaseSinkClass parent_class;
} GstQvCudaJpegSinkClass;

GType gst_cuda_jpeg_sink_get_type(void);

G_END_DECLS
