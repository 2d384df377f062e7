#pragma once
#include "common/gstqvCudaBaseTransform.h"

G_BEGIN_DECLS

#define GST_TYPE_CUDA_SCALE (gst_cuda_scale_get_type())

typedef struct _GstQvCudaScale {
  GstQvCudaBaseTransform parent;
} GstQvCudaScale;

typedef struct _GstQvCudaScaleClass {
  GstQvCudaBaseTransformClass parent_class;
} GstQvCudaScaleClass;

GType gst_cuda_scale_get_type(void);

// The one target size of every scale element; a host application may set it before caps are
// negotiated.
extern int iScaledWidth;
extern int iScaledHeight;

G_END_DECLS
