#pragma once
#include "gstqvCudaBaseTransform.h"

namespace Qv {
class CQvCudaCompNormalize;
class CQvDeviceImage2D;
}  // namespace Qv

G_BEGIN_DECLS

#define GST_TYPE_CUDA_NORMALIZE (gst_cuda_normalize_get_type())
#define GST_CUDA_NORMALIZE(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_CUDA_NORMALIZE, GstQvCudaNormalize))

// Where the gray reference image is read from; the environment variable of that name moves it.
#define QV_GRAY_REFERENCE_PATH "/home/ubuntu/gray4k.png"
#define QV_GRAY_REFERENCE_ENV "QV_GRAY_REFERENCE"

typedef struct _GstQvCudaNormalize {
  GstQvCudaBaseTransform parent;
  // Null when the reference could not be loaded; every frame then fails.
  Qv::CQvDeviceImage2D* grayImage;
  gchar* gray;
  // The file that was read, for the failure of a frame without reference.
  gchar* grayPath;
} GstQvCudaNormalize;

typedef struct _GstQvCudaNormalizeClass {
  GstQvCudaBaseTransformClass parent_class;
} GstQvCudaNormalizeClass;

GType gst_cuda_normalize_get_type(void);

G_END_DECLS
