#pragma once
// Abstract base of the device transforms: each instance owns one stream, made at instance
// init and released at finalize, and refuses to start when no device backend can be had.
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

#include "QvCudaDefs.h"

G_BEGIN_DECLS

#define GST_TYPE_QV_CUDA_BASE_TRANSFORM (gst_qv_cuda_base_transform_get_type())
#define GST_QV_CUDA_BASE_TRANSFORM(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_QV_CUDA_BASE_TRANSFORM, GstQvCudaBaseTransform))

typedef struct _GstQvCudaBaseTransform {
  GstBaseTransform parent;
  cudaStream_t stream;
} GstQvCudaBaseTransform;

typedef struct _GstQvCudaBaseTransformClass {
  GstBaseTransformClass parent_class;
} GstQvCudaBaseTransformClass;

GType gst_qv_cuda_base_transform_get_type(void);

G_END_DECLS
