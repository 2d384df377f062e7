#pragma once
#include "common/gstqvCudaBaseTransform.h"

namespace Qv {
class CQvCudaCompYUV;
}

G_BEGIN_DECLS

#define GST_TYPE_CUDA_YUV (gst_cuda_yuv_get_type())
#define GST_CUDA_YUV(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_CUDA_YUV, GstQvCudaYUV))

typedef struct _GstQvCudaYUV {
  GstQvCudaBaseTransform parent;
} GstQvCudaYUV;

typedef struct _GstQvCudaYUVClass {
  GstQvCudaBaseTransformClass parent_class;
} GstQvCudaYUVClass;

GType gst_cuda_yuv_get_type(void);

G_END_DECLS
