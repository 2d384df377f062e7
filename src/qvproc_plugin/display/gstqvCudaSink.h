#pragma once
#include <gst/base/gstbasesink.h>
#include <gst/gst.h>

#include <cstdint>
#include <deque>

class CNativeWindowX11GLX;

G_BEGIN_DECLS

#define GST_TYPE_CUDA_SINK (gst_cuda_sink_get_type())
#define GST_CUDA_SINK(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_CUDA_SINK, GstQvCudaSink))

typedef struct _GstQvCudaSink {
  GstBaseSink parent;
  // Wall-clock milliseconds of the last frames, oldest first; at most 26.
  std::deque<gint64>* pxTimes;
  guint32 uFrames;
  // Made at the first frame, closed at stop and finalize. Written under the object lock.
  CNativeWindowX11GLX* pxWindow;
  gboolean bMipMapAtStart;
} GstQvCudaSink;

typedef struct _GstQvCudaSinkClass {
  GstBaseSinkClass parent_class;
} GstQvCudaSinkClass;

GType gst_cuda_sink_get_type(void);

G_END_DECLS
