#pragma once
#include "common/gstqvCudaBaseTransform.h"

namespace Qv {
class CQvCudaCompNormalize;
class CQvDeviceImage2D;
}  // namespace Qv

G_BEGIN_DECLS

#define GST_TYPE_CUDA_NORMALIZE (gst_cuda_normalize_get_type())
#define GST_CUDA_NORMALIZE(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_CUDA_NORMALIZE, GstQvCudaNormalize))

// The default of the "gray" property; the environment variable of that name moves it.
#define QV_GRAY_REFERENCE_PATH "/home/ubuntu/gray4k.png"
#define QV_GRAY_REFERENCE_ENV "QV_GRAY_REFERENCE"

typedef struct _GstQvCudaNormalize {
  GstQvCudaBaseTransform parent;
  // Read at each start from the file that gray names; null before a start that succeeded.
  Qv::CQvDeviceImage2D* grayImage;
  gchar* gray;
} GstQvCudaNormalize;

typedef struct _GstQvCudaNormalizeClass {
  GstQvCudaBaseTransformClass parent_class;
} GstQvCudaNormalizeClass;

GType gst_cuda_normalize_get_type(void);

G_END_DECLS
