#pragma once
#include "common/gstqvCudaBaseTransform.h"

G_BEGIN_DECLS

#define GST_TYPE_CUDA_DEBAYER (gst_cuda_debayer_get_type())

typedef struct _GstQvCudaDebayer {
  GstQvCudaBaseTransform parent;
} GstQvCudaDebayer;

typedef struct _GstQvCudaDebayerClass {
  GstQvCudaBaseTransformClass parent_class;
} GstQvCudaDebayerClass;

GType gst_cuda_debayer_get_type(void);

G_END_DECLS
