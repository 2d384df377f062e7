#pragma once
#include "common/gstqvCudaBaseTransform.h"

G_BEGIN_DECLS

#define GST_TYPE_CUDA_UPLOAD (gst_cuda_upload_get_type())
#define GST_CUDA_UPLOAD(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_CUDA_UPLOAD, GstQvCudaUpload))

typedef struct _GstQvCudaUpload {
  GstQvCudaBaseTransform parent;
  gint width;
  gint height;
  // Row stride of GRAY8 frames without a video meta, from the caps (GStreamer pads GRAY8 rows
  // to 4 bytes); 0 for bayer caps, whose buffers may come packed or padded.
  gint iCapsStride;
  gint eOrder;      // the bayer-order property (EUploadOrder)
  gint ePixelType;  // the device image's mosaic order, from the property or the caps
  gint iDepth;      // significant bits of a sample: 8, or 10 to 16 in 16-bit words
} GstQvCudaUpload;

typedef struct _GstQvCudaUploadClass {
  GstQvCudaBaseTransformClass parent_class;
} GstQvCudaUploadClass;

GType gst_cuda_upload_get_type(void);

G_END_DECLS
